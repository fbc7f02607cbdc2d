#pragma once

#include <string>

#include "feature_detaction/ProcDetBase.h"

namespace Engine {

// Flags a process by where its executable lies: a temporary directory, a hidden
// path, or a file deleted since it was started.
class DetectorProc : public ProcDetBase {
public:
    std::string GetName() override { return "proc"; }
    bool Prepare() override { return true; }
    bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                      StrDetails& strDetails) override;
    void Finish() override {}
};

}  // namespace Engine
