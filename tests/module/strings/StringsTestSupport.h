#pragma once

#include <Poco/File.h>
#include <Poco/Logger.h>
#include <stdlib.h>

#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "feature_detaction/ProcDetStrings.h"

namespace Engine {

// Test access to the detector's cache and cleaning stamp.
class ProcDetStringsPeer {
public:
    static std::map<std::string, ProcDetStrings::STRINGS_INFO>& Cache(ProcDetStrings& detector) {
        return detector.stringsInfoMap;
    }
    static time_t& LastCleanTime(ProcDetStrings& detector) { return detector.lastCleanTime; }
};

}  // namespace Engine

namespace StringsTest {

inline Poco::Logger* ModuleLogger() {
    return &Poco::Logger::get("proc_det_module");
}

// A directory under `base`, removed with its content.
class TempDir {
public:
    explicit TempDir(const std::string& base = "/tmp") {
        std::string pattern = base + "/corvane-strings-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + pattern);
        }
        path_ = pattern;
    }
    ~TempDir() {
        try {
            Poco::File(path_).remove(true);
        } catch (...) {
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out) {
        throw std::runtime_error("write " + path);
    }
}

// An ELF header (64-bit, little-endian) followed by `body`.
inline std::string Elf(const std::string& body) {
    return std::string(
               "\x7f"
               "ELF\x02\x01\x01",
               7) +
           std::string(9, '\0') + body;
}

// Runs Strings over a file holding `content`.
inline std::set<std::string> ScanContent(const TempDir& dir, const std::string& content,
                                         const std::set<std::string>& keywords, long maxFileSize) {
    const std::string path = dir.File("scan.bin");
    WriteFile(path, content);
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
