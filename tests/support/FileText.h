#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace TestSupport {

// The whole content of `path` ("" when it cannot be read).
inline std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The lines of `path`, without their line ends.
inline std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// How many times `needle` occurs in `text`, overlaps included.
inline size_t CountOf(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace TestSupport
