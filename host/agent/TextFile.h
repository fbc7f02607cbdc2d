#pragma once

#include <cstddef>
#include <string>

namespace Agent {

// Reads small configuration files (agent.json, policies).
class TextFile {
public:
    // The whole regular file at `path`, at most `limit` bytes, opened without blocking. On
    // failure returns false with the reason (errno text, "not a regular file but a FIFO",
    // "larger than N bytes").
    static bool Read(const std::string& path, size_t limit, std::string& text, std::string& error);
};

}  // namespace Agent
