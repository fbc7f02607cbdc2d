#pragma once

#include <memory>

#include "framework/Engine.h"
#include "framework/Module.h"
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
    TestEngine() = default;
    ~TestEngine() {
        engine_->StopAll();
        hostModule_.UnInit();
        // The engine has dropped its references; these are the ones `new` gave us.
        report_->release();
        real_->release();
        net_->release();
        procs_->release();
    }
    TestEngine(const TestEngine&) = delete;
    TestEngine& operator=(const TestEngine&) = delete;

    Framework::Engine& engine() { return *engine_; }
    FakeProcsFullTask& procs() { return *procs_; }
    FakeNetProcsFullTask& net() { return *net_; }
    FakeProcsRealTask& real() { return *real_; }
    CaptureReportTask& report() { return *report_; }

private:
    // Registered by a module of their own, the way host modules register theirs.
    template <class T>
    T* Register(T* task) {
        task->SetTaskEnabled(true);
        hostModule_.RegisterTask(task, true);
        return task;
    }

    [[maybe_unused]] bool logging_ = SetUpTestLogging();  // before the engine and its tasks
    std::unique_ptr<Framework::Engine> engine_ = std::make_unique<Framework::Engine>();
    Framework::Module hostModule_{"test_host_module"};
    FakeProcsFullTask* procs_ = Register(new FakeProcsFullTask());
    FakeNetProcsFullTask* net_ = Register(new FakeNetProcsFullTask());
    FakeProcsRealTask* real_ = Register(new FakeProcsRealTask());
    CaptureReportTask* report_ = Register(new CaptureReportTask());
};

}  // namespace TestSupport
