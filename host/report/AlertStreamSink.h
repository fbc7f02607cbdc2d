#pragma once

#include <string>

#include "AlertSink.h"

namespace Agent {

// Alert lines to a descriptor the agent does not own, normally standard output
// (a terminal, a pipe into another program, the journal).
class AlertStreamSink : public AlertSink {
public:
    AlertStreamSink(int fd, std::string name);

    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override;
    std::string Describe() const override { return name_; }

private:
    int fd_;
    std::string name_;
    size_t partial_ = 0;  // bytes of the first undelivered line already written
};

}  // namespace Agent
