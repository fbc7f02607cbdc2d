#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "feature_detaction/ProcDetActionFullTask.h"
#include "feature_detaction/ProcDetActionFullTaskPolicy.h"
#include "feature_detaction/ProcDetBase.h"
#include "module/ModuleTestUtil.h"
#include "support/ChildProcess.h"

namespace DetactionTest {

using Child = TestSupport::ChildProcess;
using ModuleTest::RealPath;
using TestSupport::DeadPid;
using TestSupport::WaitFor;

// Results are stamped per second; waits until the next second begins so two
// cycles get different stamps.
inline void WaitNextSecond() {
    const time_t start = time(nullptr);
    WaitFor([&] { return time(nullptr) != start; });
}

// A detector driven by the test: `check` decides, every call is traced.
class FakeDetector : public Engine::ProcDetBase {
public:
    using CheckFn = std::function<bool(const Engine::ProcRecord&, unsigned int&, Engine::NumDetails&)>;

    struct Trace {
        std::vector<std::string> calls;  // "<name>:prepare", "<name>:<pid>", "<name>:finish"
        std::vector<unsigned int> flagsSeen;
    };

    FakeDetector(std::string name, std::shared_ptr<Trace> trace, CheckFn check = nullptr)
        : name_(std::move(name)), trace_(std::move(trace)), check_(std::move(check)) {}

    std::function<bool()> prepare = [] { return true; };

    std::string GetName() override { return name_; }
    bool Prepare() override {
        trace_->calls.push_back(name_ + ":prepare");
        return prepare();
    }
    bool CheckProcess(Engine::ProcRecord proc, unsigned int& flags, Engine::NumDetails& numDetails,
                      Engine::StrDetails&) override {
        trace_->calls.push_back(name_ + ":" + std::to_string(proc->pid));
        trace_->flagsSeen.push_back(flags);
        return check_ ? check_(proc, flags, numDetails) : true;
    }
    void Finish() override { trace_->calls.push_back(name_ + ":finish"); }

private:
    std::string name_;
    std::shared_ptr<Trace> trace_;
    CheckFn check_;
};

struct TaskReleaser {
    void operator()(Engine::ProcDetActionFullTask* task) const { task->release(); }
};
using TaskPtr = std::unique_ptr<Engine::ProcDetActionFullTask, TaskReleaser>;

// The task section of a policy; `score` is the "score" object's text.
inline std::string TaskSection(const std::string& score, const std::string& extra = "") {
    return R"({"task_condition": {"start_time": 0, "repeat_interval": 60}, "report_score": 3, "score": )" +
           score + extra + "}";
}

// A task that has taken a parsed policy in Init, as the host would start it.
inline TaskPtr MakeInitedTask(const std::string& section) {
    TaskPtr task(new Engine::ProcDetActionFullTask());
    Engine::ProcDetActionFullTaskPolicy policy(Engine::kDetActionTaskName);
    policy.Parse(section);
    task->AttachTaskPolicy(&policy);
    task->Init();
    task->AttachTaskPolicy(nullptr);
    return task;
}

}  // namespace DetactionTest
