#pragma once

#include <cstdint>
#include <string>

namespace Agent {

// Alert lines a sink refused for good, kept for the operator in a private file
// (0600, JSON lines as spooled) so that one alert a destination will never take
// does not hold up every alert after it. Bounded: once `maxBytes` are held the
// file takes no more until it is moved away, and the sink's alerts wait in the
// spool meanwhile, so nothing is dropped here.
class DeadLetterFile {
public:
    DeadLetterFile(std::string path, uint64_t maxBytes);

    // Appends `line` and syncs it. False with the reason (full, or cannot be written).
    bool Append(const std::string& line, std::string& error);

    const std::string& GetPath() const { return path_; }

private:
    const std::string path_;
    const uint64_t maxBytes_;
};

}  // namespace Agent
