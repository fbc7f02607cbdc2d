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

}  // namespace TestSupport
