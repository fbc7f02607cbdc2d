#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "DetactionTestUtil.h"
#include "support/TestEngine.h"

using namespace DetactionTest;
using TestSupport::MakeProc;

namespace {

class ManagerCycleTest : public ::testing::Test {
protected:
    size_t Count(const std::string& call) const {
        return static_cast<size_t>(std::count(trace->calls.begin(), trace->calls.end(), call));
    }

    TestSupport::TestEngine env;
    TestSupport::LogCapture log{"proc_det_module"};
    std::shared_ptr<FakeDetector::Trace> trace = std::make_shared<FakeDetector::Trace>();
    Engine::ProcDetManager manager;
};

TEST_F(ManagerCycleTest, DetectorsRunInOrderOverEveryCheckedProcess) {
    Child a({"/bin/sleep", "30"});
    Child b({"/bin/sleep", "30"});
    Child ignored({"/bin/sleep", "30"});
    const int first = std::min(a.pid(), b.pid());
    const std::string f = std::to_string(first);
    const std::string s = std::to_string(std::max(a.pid(), b.pid()));
    env.procs().Put(MakeProc(first, "/usr/bin/first"));
    env.procs().Put(MakeProc(std::max(a.pid(), b.pid()), "/usr/bin/second"));
    env.procs().Put(MakeProc(ignored.pid(), "/opt/ignored"));
    env.procs().Put(MakeProc(getpid(), "/usr/bin/self"));
    manager.Init(nullptr, nullptr);
    manager.SetIgnoreFilepathSet({"/opt/ignored"});
    manager.AddDetector(
        new FakeDetector("one", trace,
                         [&](const Engine::ProcRecord& proc, unsigned int& flags, Engine::NumDetails&) {
                             flags |= proc->pid == first ? Engine::PROC_TMP : 0u;
                             return true;
                         }),
        1);
    manager.AddDetector(
        new FakeDetector("quitter", trace,
                         [](const Engine::ProcRecord&, unsigned int&, Engine::NumDetails&) { return false; }),
        1);
    manager.AddDetector(new FakeDetector("two", trace), 1);
    manager.AddDetector(nullptr, 1);

    manager.Check(1, nullptr);
    // The quitter is not asked about the second process but still finished; later
    // detectors see earlier bits; the agent itself and ignored paths are never checked.
    EXPECT_EQ(trace->calls,
              (std::vector<std::string>{"one:prepare", "quitter:prepare", "two:prepare", "one:" + f,
                                        "quitter:" + f, "two:" + f, "one:" + s, "two:" + s, "one:finish",
                                        "quitter:finish", "two:finish"}));
    EXPECT_EQ(trace->flagsSeen, (std::vector<unsigned int>{0, 1, 1, 0, 0}));
    Engine::ProcDetManager::ResultMap results;
    manager.GetProcInfoMap(results);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results.at(first).flags, Engine::PROC_TMP);

    // The next cycle asks the quitter again.
    manager.Check(1, nullptr);
    EXPECT_EQ(Count("quitter:" + f), 2u);
}

TEST_F(ManagerCycleTest, IntervalsFailedPreparesAndStopRequests) {
    manager.Init(nullptr, nullptr);
    manager.AddDetector(new FakeDetector("every3", trace), 3);
    auto* failing = new FakeDetector("failing", trace);
    failing->prepare = [] { return false; };
    manager.AddDetector(failing, 0);
    std::vector<int> ranIn;
    for (int cycle = 1; cycle <= 9; ++cycle) {
        const size_t before = Count("every3:prepare");
        manager.Check(1, nullptr);
        if (Count("every3:prepare") > before) {
            ranIn.push_back(cycle);
        }
    }
    EXPECT_EQ(ranIn, (std::vector<int>{3, 6, 9}));
    EXPECT_EQ(Count("every3:finish"), 3u);
    EXPECT_EQ(Count("failing:finish"), 0u);
    EXPECT_EQ(log.Count("CHECK FINISHED"), 3u);

    // A stop request during the walk: the rest of the table is not walked, but Finish still runs.
    TaskPtr task(new Engine::ProcDetActionFullTask());
    env.procs().Put(MakeProc(1, "/sbin/init"));
    env.procs().Put(MakeProc(2, "/sbin/other"));
    Engine::ProcDetManager stopping;
    stopping.Init(task.get(), nullptr);
    stopping.AddDetector(new FakeDetector("stopper", trace,
                                          [&](const Engine::ProcRecord&, unsigned int&, Engine::NumDetails&) {
                                              task->cancel();
                                              return true;
                                          }),
                         1);
    trace->calls.clear();
    stopping.Check(1, task.get());
    EXPECT_EQ(trace->calls, (std::vector<std::string>{"stopper:prepare", "stopper:1", "stopper:finish"}));
}

}  // namespace
