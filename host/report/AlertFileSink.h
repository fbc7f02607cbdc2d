#pragma once

#include <cstdint>
#include <string>

#include "AlertSink.h"

namespace Agent {

// Alert lines appended to a file created with mode 0600 (alerts name users,
// paths and command lines). When a line would take a regular file past
// `rotateBytes`, the file is renamed to .1 (.1 to .2, and so on up to
// .keepFiles; the oldest is overwritten) and a new one is started. The file is
// opened on first use and reopened after a failure, so a missing directory or
// a deleted file is picked up again once it is back.
class AlertFileSink : public AlertSink {
public:
    // rotateBytes 0: never rotate. keepFiles 0: a full file is removed, not kept.
    AlertFileSink(std::string path, uint64_t rotateBytes, int keepFiles);
    ~AlertFileSink() override;

    AlertFileSink(const AlertFileSink&) = delete;
    AlertFileSink& operator=(const AlertFileSink&) = delete;

    int WriteLine(const std::string& line, size_t& offset) override;
    std::string Describe() const override { return path_; }

private:
    int Open();
    void Close();
    void RotateIfFull(size_t lineSize);
    bool Rotate();

    const std::string path_;
    const uint64_t rotateBytes_;
    const int keepFiles_;
    int fd_ = -1;
    bool regular_ = false;
    uint64_t size_ = 0;
    bool rotateFailed_ = false;
};

}  // namespace Agent
