#include "framework/CompositePolicy.h"

namespace Framework {

CompositePolicy::CompositePolicy(const std::string& name) : Policy(name) {}

CompositePolicy::~CompositePolicy() = default;

void CompositePolicy::Add(Policy* child) {
    if (child != nullptr) {
        children_.emplace_back(child);
    }
}

Policy* CompositePolicy::GetChild(size_t index) const {
    return index < children_.size() ? children_[index].get() : nullptr;
}

Policy* CompositePolicy::FindChild(const std::string& name) const {
    for (const auto& child : children_) {
        if (child->GetName() == name) {
            return child.get();
        }
    }
    return nullptr;
}

int CompositePolicy::Dispatch(Policy* /*parent*/) {
    int reached = 0;
    for (const auto& child : children_) {
        reached += child->Dispatch(this);
    }
    return reached;
}

}  // namespace Framework
