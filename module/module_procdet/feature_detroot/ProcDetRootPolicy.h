#pragma once

#include <set>
#include <string>

#include "framework/FeaturePolicy.h"

namespace Engine {

// Feature policy of "proc_detroot_feature": the programs never to report, and
// the task policy of "detroot_full_task" as its one child.
class ProcDetRootPolicy : public Framework::FeaturePolicy {
public:
    explicit ProcDetRootPolicy(const std::string& name);
    ~ProcDetRootPolicy() override;

    bool Parse(const std::string& text) override;

    // Each configured path, and the same path with " (deleted)" so that a
    // program replaced on disk while it runs stays ignored.
    const std::set<std::string>& GetIgnoredProcesses() const { return ignoredProcesses_; }

private:
    std::set<std::string> ignoredProcesses_;
};

}  // namespace Engine
