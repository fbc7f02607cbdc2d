#pragma once

#include <string>

#include "feature_detaction/ProcDetBase.h"

namespace Engine {

// Flags a process whose command line names a program other than its executable
// (a process disguising itself, e.g. as a kernel thread).
class ProcDetCmdline : public ProcDetBase {
public:
    std::string GetName() override { return "cmdline"; }
    bool Prepare() override { return true; }
    bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                      StrDetails& strDetails) override;
    void Finish() override {}

    // The decision alone, on a command line already read (arguments joined by blanks).
    static bool IsDisguised(const std::string& exePath, const std::string& cmdline);
};

}  // namespace Engine
