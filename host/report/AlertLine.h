#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Agent {

// Turns a report body into the lines of the alert stream.
class AlertLine {
public:
    // A body that is one JSON document becomes one line, ending in '\n': as
    // sent when it is already on one line, re-serialised compactly otherwise,
    // and made valid UTF-8 either way (JsonUtils::ToValidUtf8). A line longer
    // than `maxLine` becomes the lines of its parts (AlertSplitter), each
    // carrying the tie that AlertSinkPump takes off again. Anything else is
    // refused with the reason in `error`.
    static bool FromBody(const std::string& body, size_t maxLine, std::vector<std::string>& lines,
                         std::string& error);

    // Whether `size` bytes at `text` (a line read back, without its '\n') are
    // one JSON document that FromBody would have written.
    static bool IsDocument(const char* text, size_t size);
};

}  // namespace Agent
