#pragma once

#include <Poco/Message.h>

#include <memory>
#include <string>

#include "framework/Engine.h"
#include "support/CaptureReportTask.h"
#include "support/FakeNetProcsFullTask.h"
#include "support/FakeProcsFullTask.h"
#include "support/FakeProcsRealTask.h"
#include "support/LogCapture.h"

namespace TestSupport {

// A Framework::Engine for module tests, with the host's tasks replaced by fakes:
// "procs_full_task" and "netproc_full_task" serve synthetic tables,
// "procs_real_task" records subscriptions and emits synthetic events, and
// "data_comm_report_task" captures what is sent to it. One per process at a time.
class TestEngine {
public:
    TestEngine();
    ~TestEngine();

    TestEngine(const TestEngine&) = delete;
    TestEngine& operator=(const TestEngine&) = delete;

    Framework::Engine& engine() { return *engine_; }
    FakeProcsFullTask& procs() { return *procs_; }
    FakeNetProcsFullTask& net() { return *net_; }
    FakeProcsRealTask& real() { return *real_; }
    CaptureReportTask& report() { return *report_; }

private:
    std::unique_ptr<Framework::Engine> engine_;
    FakeProcsFullTask* procs_;
    FakeNetProcsFullTask* net_;
    FakeProcsRealTask* real_;
    CaptureReportTask* report_;
};

}  // namespace TestSupport
