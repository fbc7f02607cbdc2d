#pragma once

#include <string>

namespace Agent {

// Turns a report body into one line of the alert stream.
class AlertLine {
public:
    // A body that is one JSON document becomes `line`, ending in '\n': as sent
    // when it is already on one line, re-serialised compactly otherwise.
    // Anything else is refused with the reason in `error`.
    static bool FromBody(const std::string& body, std::string& line, std::string& error);

    // Whether `size` bytes at `text` (a line read back, without its '\n') are
    // one JSON document that FromBody would have taken.
    static bool IsDocument(const char* text, size_t size);
};

}  // namespace Agent
