#pragma once

#include <string>

#include "framework/CompositePolicy.h"

namespace Framework {

// The policy of one feature; its name is the feature name. Dispatch attaches it
// as the feature policy of every registered task of that feature, then
// dispatches its children (the task policies).
class FeaturePolicy : public CompositePolicy {
public:
    explicit FeaturePolicy(const std::string& featureName);
    ~FeaturePolicy() override;

    int Dispatch(Policy* parent) override;
};

}  // namespace Framework
