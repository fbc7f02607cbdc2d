#pragma once

#include <string>

#include "AlertSink.h"

namespace Agent {

// Alert lines to a descriptor the agent does not own, normally standard output
// (a terminal, a pipe into another program, the journal).
class AlertStreamSink : public AlertSink {
public:
    AlertStreamSink(int fd, std::string name);

    int WriteLine(const std::string& line, size_t& offset) override;
    std::string Describe() const override { return name_; }

private:
    int fd_;
    std::string name_;
};

}  // namespace Agent
