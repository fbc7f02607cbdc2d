#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/Policy.h"

namespace Framework {

// A policy that owns child policies.
class CompositePolicy : public Policy {
public:
    explicit CompositePolicy(const std::string& name);
    ~CompositePolicy() override;

    // Takes ownership of `child`; a null child is ignored.
    void Add(Policy* child);

    size_t GetChildCount() const { return children_.size(); }
    Policy* GetChild(size_t index) const;
    // The first child of that name, or null.
    Policy* FindChild(const std::string& name) const;

    // Dispatches every child with this policy as parent.
    int Dispatch(Policy* parent) override;

private:
    std::vector<std::unique_ptr<Policy>> children_;
};

}  // namespace Framework
