#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace TestSupport {

// A fresh directory under `base`, removed with its contents when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& tag = "test", const std::string& base = "/tmp") {
        std::string pattern = base + "/corvane_" + tag + "_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + pattern);
        }
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }

    // Writes `content` to `relative` (its directories created); returns the full path.
    std::string Write(const std::string& relative, const std::string& content) const {
        const std::filesystem::path full = std::filesystem::path(path_) / relative;
        std::filesystem::create_directories(full.parent_path());
        std::ofstream(full, std::ios::binary) << content;
        return full.string();
    }

private:
    std::string path_;
};

}  // namespace TestSupport
