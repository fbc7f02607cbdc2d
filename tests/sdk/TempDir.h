#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

// A fresh directory under /tmp, removed with its contents when the object goes.
class TempDir {
public:
    TempDir() {
        char path[] = "/tmp/sdk_test_XXXXXX";
        if (mkdtemp(path) != nullptr) {
            path_ = path;
        }
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
