#include "AlertSink.h"

#include <unistd.h>

#include <cerrno>

namespace Agent {

int AlertSink::WriteToFd(int fd, const std::string& data, size_t& offset) {
    while (offset < data.size()) {
        const ssize_t written = ::write(fd, data.data() + offset, data.size() - offset);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (written == 0) {
            return EIO;
        }
        offset += static_cast<size_t>(written);
    }
    return 0;
}

}  // namespace Agent
