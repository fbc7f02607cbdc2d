#pragma once

#include <string>

#include "feature_detaction/ProcDetBase.h"

namespace Engine {

// What the manager keeps about one flagged process between cycles.
struct ProcCheckInfo {
    // Executable path as it was when `flags` were recorded.
    std::string filePath;
    // Findings last recorded; a record that survived a cycle never holds 0.
    unsigned int flags = 0;
    // Details from the cycle that recorded `flags`, kept while the flags stay the same.
    NumDetails numDetails;
    StrDetails strDetails;
    // Stamp of the last cycle that flagged the process.
    long lastSeen = 0;
};

}  // namespace Engine
