#pragma once

#include <string>

#include "framework/Module.h"

namespace AgentTest {

class TestReportTask;

// Takes policy id "90001", feature "agent_test_feature": an enabled policy
// (re)registers the reporting task, a disabled one unregisters it.
class TestModule : public Framework::Module {
public:
    static constexpr const char* kPolicyId = "90001";
    static constexpr const char* kFeature = "agent_test_feature";

    TestModule();
    ~TestModule() override;

    int Init() override;
    int UnInit() override;

private:
    Framework::Policy* OnPolicy(const std::string& feature, const std::string& content,
                                Framework::Policy*& current);

    TestReportTask* task_ = nullptr;
};

}  // namespace AgentTest
