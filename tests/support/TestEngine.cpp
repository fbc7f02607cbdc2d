#include "support/TestEngine.h"

#include <cstdlib>

#include "framework/Module.h"
#include "sdk/LoggerUtils.h"

namespace TestSupport {

namespace {

// Owner of the fake host tasks, so they are registered the way host modules register theirs.
class TestHostModule : public Framework::Module {
public:
    TestHostModule() : Framework::Module("test_host_module") {}
};

std::unique_ptr<TestHostModule> g_hostModule;

template <class T>
T* RegisterHostTask(T* task) {
    task->SetTaskEnabled(true);
    g_hostModule->RegisterTask(task, true);
    return task;
}

}  // namespace

TestEngine::TestEngine() {
    SDK::LoggerUtils* logging = SDK::LoggerUtils::GetInstance();
    if (!logging->IsSetUp()) {
        SDK::LogSettings settings;
        settings.target = "stderr";
        const char* level = std::getenv("CORVANE_TEST_LOG_LEVEL");
        settings.level = level != nullptr ? level : "error";
        logging->Setup(settings);
    }
    engine_ = std::make_unique<Framework::Engine>();
    g_hostModule = std::make_unique<TestHostModule>();
    procs_ = RegisterHostTask(new FakeProcsFullTask());
    net_ = RegisterHostTask(new FakeNetProcsFullTask());
    real_ = RegisterHostTask(new FakeProcsRealTask());
    report_ = RegisterHostTask(new CaptureReportTask());
}

TestEngine::~TestEngine() {
    engine_->StopAll();
    g_hostModule->UnInit();
    // The engine has dropped its references; these are the ones `new` gave us.
    report_->release();
    real_->release();
    net_->release();
    procs_->release();
    g_hostModule.reset();
    engine_.reset();
}

}  // namespace TestSupport
