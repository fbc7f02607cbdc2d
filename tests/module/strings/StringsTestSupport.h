#pragma once

#include <set>
#include <stdexcept>
#include <string>

#include "feature_detaction/ProcDetStrings.h"
#include "support/TempDir.h"

namespace StringsTest {

using TestSupport::TempDir;

// An ELF header (64-bit, little-endian) followed by `body`.
inline std::string Elf(const std::string& body) {
    return std::string("\177ELF\2\1\1", 7) + std::string(9, '\0') + body;
}

// Runs Strings over a file holding `content`.
inline std::set<std::string> ScanContent(const TempDir& dir, const std::string& content,
                                         const std::set<std::string>& keywords, long maxFileSize) {
    const std::string path = dir.Write("scan.bin", content);
    Engine::ProcDetStrings detector;
    detector.Init(keywords, maxFileSize, 0x20, nullptr);
    const bool running = true;
    std::set<std::string> matched;
    if (!detector.Strings(path, running, matched)) {
        throw std::runtime_error("Strings failed on " + path);
    }
    return matched;
}

}  // namespace StringsTest
