#pragma once

#include <string>

#include "framework/TaskPolicy.h"

namespace Engine {

// Kind tag of both detroot policies.
inline constexpr int kDetRootPolicyKind = 180;

// Task policy of "detroot_full_task": its schedule and whether a root child
// running a legitimate set-ID program is still reported.
class ProcDetRootFullTaskPolicy : public Framework::TaskPolicy {
public:
    explicit ProcDetRootFullTaskPolicy(const std::string& name);
    ~ProcDetRootFullTaskPolicy() override;

    bool Parse(const std::string& text) override;

    bool GetNosuidParent() const { return reportNonsuidParent_; }

private:
    bool reportNonsuidParent_ = false;
};

}  // namespace Engine
