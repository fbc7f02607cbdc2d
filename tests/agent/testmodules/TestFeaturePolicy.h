#pragma once

#include <string>

#include "framework/FeaturePolicy.h"

namespace AgentTest {

// {"enabled": true, "value": "...", "burst": N, "sent_log": "/path", "hang": false}
class TestFeaturePolicy : public Framework::FeaturePolicy {
public:
    explicit TestFeaturePolicy(const std::string& featureName) : Framework::FeaturePolicy(featureName) {}

    bool Parse(const std::string& content) override;

    std::string value;
    int burst = 1;        // reports per run
    std::string sentLog;  // where the task records how many reports it sent
    bool hang = false;    // Run blocks, making no progress, until the task is stopped
};

}  // namespace AgentTest
