#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "AlertSink.h"

namespace Agent {

// Feeds one sink and keeps what it could not take. While the sink fails, lines
// wait in a backlog of at most `backlogBytes` (the oldest are dropped beyond
// that) and are written, in order, as soon as the sink works again. An outage
// is logged once when it starts and once when it ends, with what was lost.
class AlertSinkWriter {
public:
    AlertSinkWriter(std::unique_ptr<AlertSink> sink, size_t backlogBytes);

    // Queues one line (ending in '\n') behind any backlog and writes what the sink takes.
    void Add(std::string line);
    // Writes the backlog until the sink fails. True when nothing is left.
    bool Flush();

    bool HasBacklog() const { return !pending_.empty(); }
    size_t GetBacklogCount() const { return pending_.size(); }
    uint64_t GetDroppedCount() const { return droppedTotal_; }
    std::string Describe() const { return sink_->Describe(); }

private:
    void TrimBacklog();
    void OnFailure(int error);
    void OnRecovery();

    std::unique_ptr<AlertSink> sink_;
    const size_t backlogBytes_;
    std::deque<std::string> pending_;
    size_t pendingBytes_ = 0;
    size_t frontOffset_ = 0;  // bytes of the front line already written

    bool failing_ = false;
    uint64_t writtenInOutage_ = 0;
    uint64_t droppedInOutage_ = 0;
    uint64_t droppedTotal_ = 0;
};

}  // namespace Agent
