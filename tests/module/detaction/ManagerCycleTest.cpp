#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "DetactionTestUtil.h"
#include "feature_detaction/ProcDetManager.h"
#include "support/TestEngine.h"

using namespace DetactionTest;
using Engine::ProcDetManager;
using TestSupport::MakeProc;

namespace {

class ManagerCycleTest : public ::testing::Test {
protected:
    std::vector<std::string> Calls() const { return trace->calls; }
    size_t CountCalls(const std::string& call) const {
        return static_cast<size_t>(std::count(trace->calls.begin(), trace->calls.end(), call));
    }

    TestSupport::TestEngine env;
    TestSupport::LogCapture log{"proc_det_module"};
    std::shared_ptr<FakeDetector::Trace> trace = std::make_shared<FakeDetector::Trace>();
    ProcDetManager manager;
};

TEST_F(ManagerCycleTest, DetectorsRunInOrderSharingFlagsAndSkipSelfAndIgnored) {
    Child a({"/bin/sleep", "30"});
    Child b({"/bin/sleep", "30"});
    Child ignored({"/bin/sleep", "30"});
    const int first = std::min(a.pid(), b.pid());
    const int second = std::max(a.pid(), b.pid());
    env.procs().Put(MakeProc(first, "/usr/bin/first"));
    env.procs().Put(MakeProc(second, "/usr/bin/second"));
    env.procs().Put(MakeProc(ignored.pid(), "/opt/ignored"));
    env.procs().Put(MakeProc(getpid(), "/usr/bin/self"));

    manager.Init(nullptr, nullptr);
    manager.SetIgnoreFilepathSet({"/opt/ignored"});
    manager.AddDetector(
        new FakeDetector("one", trace,
                         [&](const Engine::ProcRecord& proc, unsigned int& flags, Engine::NumDetails&) {
                             if (proc->pid == first) {
                                 flags |= Engine::PROC_TMP;
                             }
                             return true;
                         }),
        1);
    manager.AddDetector(new FakeDetector("two", trace), 1);
    manager.AddDetector(nullptr, 1);
    EXPECT_EQ(manager.GetDetectorCount(), 2u);

    manager.Check(1, nullptr);

    const std::string f = std::to_string(first);
    const std::string s = std::to_string(second);
    EXPECT_EQ(Calls(), (std::vector<std::string>{"one:prepare", "two:prepare", "one:" + f, "two:" + f,
                                                 "one:" + s, "two:" + s, "one:finish", "two:finish"}));
    // The second detector saw the first one's bit for the first process only.
    EXPECT_EQ(trace->flagsSeen, (std::vector<unsigned int>{0, Engine::PROC_TMP, 0, 0}));
    ProcDetManager::ResultMap results;
    manager.GetProcInfoMap(results);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results.at(first).flags, Engine::PROC_TMP);
    EXPECT_EQ(results.at(first).filePath, "/usr/bin/first");
    EXPECT_EQ(log.Count("CHECK FINISHED"), 1u);
    EXPECT_EQ(log.Count("DetectNEW RESULT " + f + " /usr/bin/first=>1 (PROC_TMP, )"), 1u);
}

TEST_F(ManagerCycleTest, IntervalsCountDownAndFailedPrepareSitsOut) {
    manager.Init(nullptr, nullptr);
    manager.AddDetector(new FakeDetector("every3", trace), 3);
    auto* failing = new FakeDetector("failing", trace);
    failing->prepare = [] { return false; };
    manager.AddDetector(failing, 0);

    std::vector<int> ranIn;
    for (int cycle = 1; cycle <= 9; ++cycle) {
        const size_t before = CountCalls("every3:prepare");
        manager.Check(1, nullptr);
        if (CountCalls("every3:prepare") > before) {
            ranIn.push_back(cycle);
        }
    }
    EXPECT_EQ(ranIn, (std::vector<int>{3, 6, 9}));
    EXPECT_EQ(CountCalls("every3:finish"), 3u);
    // A failed Prepare is retried every due cycle but never finished.
    EXPECT_EQ(CountCalls("failing:prepare"), 9u);
    EXPECT_EQ(CountCalls("failing:finish"), 0u);
    EXPECT_EQ(log.Count("prepare failing failed."), 9u);

    // Elapsed time beyond the interval is dropped, so the detector runs every cycle.
    ProcDetManager other;
    other.Init(nullptr, nullptr);
    auto otherTrace = std::make_shared<FakeDetector::Trace>();
    other.AddDetector(new FakeDetector("slow", otherTrace), 3);
    for (int cycle = 0; cycle < 3; ++cycle) {
        other.Check(5, nullptr);
    }
    EXPECT_EQ(std::count(otherTrace->calls.begin(), otherTrace->calls.end(), "slow:prepare"), 3);
}

TEST_F(ManagerCycleTest, QuittingDetectorIsFinishedAndNotAskedAgainThatCycle) {
    Child a({"/bin/sleep", "30"});
    Child b({"/bin/sleep", "30"});
    const int first = std::min(a.pid(), b.pid());
    const int second = std::max(a.pid(), b.pid());
    env.procs().Put(MakeProc(first, "/usr/bin/first"));
    env.procs().Put(MakeProc(second, "/usr/bin/second"));
    manager.Init(nullptr, nullptr);
    manager.AddDetector(
        new FakeDetector("quitter", trace,
                         [](const Engine::ProcRecord&, unsigned int& flags, Engine::NumDetails&) {
                             flags |= Engine::HIGHCPU;
                             return false;
                         }),
        1);
    manager.AddDetector(new FakeDetector("stayer", trace), 1);

    manager.Check(1, nullptr);
    const std::string f = std::to_string(first);
    const std::string s = std::to_string(second);
    EXPECT_EQ(Calls(),
              (std::vector<std::string>{"quitter:prepare", "stayer:prepare", "quitter:" + f, "stayer:" + f,
                                        "stayer:" + s, "quitter:finish", "stayer:finish"}));
    EXPECT_EQ(log.Count("quitter QUIT when checking " + f + " /usr/bin/first"), 1u);
    EXPECT_EQ(log.Count("quitter\tis checked pid " + f + ". 0, 32"), 1u);

    // The next cycle asks it again.
    manager.Check(1, nullptr);
    EXPECT_EQ(CountCalls("quitter:" + f), 2u);
}

TEST_F(ManagerCycleTest, StopRequestStillFinishesAndCleans) {
    TaskPtr task(new Engine::ProcDetActionFullTask());
    env.procs().Put(MakeProc(1, "/sbin/init"));
    manager.Init(task.get(), nullptr);
    auto* detector = new FakeDetector("stopper", trace);
    detector->prepare = [&] {
        task->cancel();
        return true;
    };
    manager.AddDetector(detector, 1);

    manager.Check(1, task.get());
    EXPECT_EQ(Calls(), (std::vector<std::string>{"stopper:prepare", "stopper:finish"}));
    EXPECT_EQ(log.Count("CHECK FINISHED"), 0u);

    // With no detector at all nothing is walked either.
    ProcDetManager empty;
    empty.Init(nullptr, nullptr);
    log.Clear();
    empty.Check(1, nullptr);
    EXPECT_EQ(log.Count("prepared detector : 0"), 1u);
    EXPECT_EQ(log.Count("CHECK FINISHED"), 0u);
    EXPECT_EQ(env.procs().GetCallCount(), 0);
}

}  // namespace
