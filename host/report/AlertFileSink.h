#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "AlertSink.h"

namespace Agent {

// Alert lines appended to a file that is root's alone (alerts name users,
// paths and command lines): opened without following links, mode 0600. When a
// line would take a regular file past `rotateBytes`, the file is renamed to .1
// (.1 to .2, and so on up to .keepFiles; the oldest is overwritten) and a new
// one is started. The file is reopened after a failure, on request (SIGUSR1)
// and when it was renamed or removed under us (logrotate), so a rotated file
// never swallows alerts. Sync makes the lines written so far durable.
class AlertFileSink : public AlertSink {
public:
    // rotateBytes 0: never rotate. keepFiles 0: a full file is removed, not kept.
    AlertFileSink(std::string path, uint64_t rotateBytes, int keepFiles);
    ~AlertFileSink() override;

    AlertFileSink(const AlertFileSink&) = delete;
    AlertFileSink& operator=(const AlertFileSink&) = delete;

    // What keeps the file at `path` from taking alerts, looked at without opening it.
    static std::vector<SinkProblem> Check(const std::string& path);

    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override;
    bool Sync(std::string& error) override;
    std::string Describe() const override { return path_; }
    void RequestReopen() override { reopen_.store(true); }

private:
    bool Open(std::string& error);
    void Close();
    bool WasMoved() const;
    void RotateIfFull(size_t nextSize);
    bool Rotate();

    const std::string path_;
    const uint64_t rotateBytes_;
    const int keepFiles_;
    int fd_ = -1;
    bool regular_ = false;
    uint64_t size_ = 0;
    size_t partial_ = 0;  // bytes of the first undelivered line already written
    bool rotateFailed_ = false;
    std::atomic<bool> reopen_{false};
};

}  // namespace Agent
