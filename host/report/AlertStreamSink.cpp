#include "AlertStreamSink.h"

#include <cstring>
#include <utility>

namespace Agent {

AlertStreamSink::AlertStreamSink(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

size_t AlertStreamSink::Deliver(const std::vector<std::string>& lines, std::string& error) {
    for (size_t index = 0; index < lines.size(); ++index) {
        const int failure = WriteToFd(fd_, lines[index], partial_);
        if (failure != 0) {
            error = std::strerror(failure);
            return index;
        }
        partial_ = 0;
    }
    return lines.size();
}

}  // namespace Agent
