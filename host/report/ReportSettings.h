#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Agent {

// Where the report task writes alerts.
struct ReportSettings {
    bool toStdout = false;
    std::string filePath;                        // empty: no alert file
    uint64_t rotateBytes = 50ull * 1024 * 1024;  // 0: never rotate
    int keepFiles = 5;
    size_t backlogBytes = 16u * 1024 * 1024;  // per sink, while it fails
    int retrySeconds = 2;                     // retry of a failing sink without new alerts
};

}  // namespace Agent
