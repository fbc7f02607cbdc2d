#include "AlertStreamSink.h"

#include <utility>

namespace Agent {

AlertStreamSink::AlertStreamSink(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

int AlertStreamSink::WriteLine(const std::string& line, size_t& offset) {
    return WriteToFd(fd_, line, offset);
}

}  // namespace Agent
