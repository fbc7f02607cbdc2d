#pragma once

#include <cstddef>
#include <string>

namespace Agent {

// One destination of alert lines (a file, standard output).
class AlertSink {
public:
    virtual ~AlertSink() = default;

    // Writes line[offset..] and moves `offset` past what was written. Returns 0
    // once the whole line is out, or the errno of the failure; calling again
    // with the same offset continues the line where it stopped.
    virtual int WriteLine(const std::string& line, size_t& offset) = 0;

    // The sink as log lines name it (a path, "standard output").
    virtual std::string Describe() const = 0;

protected:
    // write(2) loop over a descriptor, retried on EINTR; same contract as WriteLine.
    static int WriteToFd(int fd, const std::string& line, size_t& offset);
};

}  // namespace Agent
