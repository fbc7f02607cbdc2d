// The snapshot task over a fake /proc tree built in a temporary directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "LiveProcsFullTask.h"
#include "ProcTableScanner.h"
#include "collect/ProcsFullTask.h"
#include "sdk/ProcessUtils.h"
#include "support/TempDir.h"

namespace {

// A /proc tree in a temporary directory.
class FakeProcTree : public TestSupport::TempDir {
public:
    FakeProcTree() : TestSupport::TempDir("collect-proc") {
        Write("stat", "cpu  1 2 3 4\nbtime 1000000\nprocesses 5\n");
    }

    // A process whose stat has the given parent and start time (ticks).
    void AddProcess(int pid, int ppid, long startTicks, const std::string& exe, unsigned uid = 0) const {
        const std::string dir = std::to_string(pid) + "/";
        const std::string name = "p" + std::to_string(pid);
        const std::string ids = std::to_string(uid);
        Write(dir + "stat", std::to_string(pid) + " (" + name + ") S " + std::to_string(ppid) +
                                " 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(startTicks) +
                                " 100 10 0 0 0\n");
        Write(dir + "status", "Name:\t" + name + "\nUid:\t" + ids + "\t" + ids + "\t" + ids + "\t" + ids +
                                  "\nGid:\t7\t7\t7\t7\nCapEff:\t0000000000000000\n");
        Write(dir + "cmdline", name + std::string("\0-x\0", 4));
        if (!exe.empty()) {
            EXPECT_EQ(0, ::symlink(exe.c_str(), (root() + "/" + dir + "exe").c_str()));
        }
    }
    const std::string& root() const { return path(); }
};

TEST(ProcsFullTask, SnapshotOfAFakeTreeLinksParents) {
    FakeProcTree tree;
    tree.AddProcess(1, 0, 5, "/sbin/init");
    tree.AddProcess(2, 0, 6, "");  // kernel thread
    tree.AddProcess(40, 1, 300, "/usr/bin/parent (deleted)", 1000);
    tree.AddProcess(41, 40, 450, "/usr/bin/child", 1000);
    tree.AddProcess(42, 99, 500, "/usr/bin/orphan");  // parent not in the table
    ::mkdir((tree.root() + "/43").c_str(), 0755);     // vanished: no files left
    ::mkdir((tree.root() + "/net").c_str(), 0755);    // not a process
    tree.Write("self", "");

    const std::string previousRoot = SDK::ProcessUtils::GetProcRoot();
    SDK::ProcessUtils::SetProcRoot(tree.root());
    auto* task = new Engine::LiveProcsFullTask(60);
    Engine::ProcsFullTask::ProcsMap map;
    const int count = task->GetProcsMap(map);
    SDK::ProcessUtils::SetProcRoot(previousRoot);

    ASSERT_EQ(5, count);
    ASSERT_EQ(5u, map.size());  // not the vanished 43, nor net or self
    const auto& child = *map.at(41);
    EXPECT_EQ(std::make_tuple(child.ppid, child.exePath, child.parentExePath, child.parentStartTime,
                              child.startTime, child.startTimeSec, child.uid, child.egid, child.cmdline),
              std::make_tuple(40, "/usr/bin/child", "/usr/bin/parent (deleted)", 300, 450,
                              1000000 + 4,  // 450 ticks at 100 per second
                              1000u, 7u, "p41 -x"));
    EXPECT_EQ("/sbin/init", map.at(40)->parentExePath);
    EXPECT_TRUE(map.at(2)->exePath.empty());
    EXPECT_TRUE(map.at(42)->parentExePath.empty());
    EXPECT_EQ(0, map.at(42)->parentStartTime);

    // A second call within the refresh time serves the same records.
    Engine::ProcsFullTask::ProcsMap again;
    task->GetProcsMap(again);
    EXPECT_EQ(map.at(41).get(), again.at(41).get());
    task->release();
}

// A rescan keeps the records it reads unchanged and copies, never modifies, a kept
// record whose parent changed: readers may still hold the earlier table.
TEST(ProcTableScanner, RescanKeepsUnchangedRecordsAndLeavesTheEarlierTableAlone) {
    FakeProcTree tree;
    tree.AddProcess(1, 0, 5, "/sbin/init");
    tree.AddProcess(40, 1, 300, "/usr/bin/parent", 1000);
    tree.AddProcess(41, 40, 450, "/usr/bin/child", 1000);
    tree.AddProcess(42, 1, 500, "/usr/bin/other");
    Engine::ProcTableScanner scanner(tree.root());
    Engine::ProcsFullTask::ProcsMap first;
    ASSERT_TRUE(scanner.TakeSnapshot(first));

    // 40 executes another program; 42 rewrites its command line.
    ::unlink((tree.root() + "/40/exe").c_str());
    ASSERT_EQ(0, ::symlink("/usr/bin/exec", (tree.root() + "/40/exe").c_str()));
    tree.Write("42/cmdline", std::string("p42\0-y\0", 7));
    Engine::ProcsFullTask::ProcsMap second;
    ASSERT_TRUE(scanner.TakeSnapshot(second, nullptr, &first));

    ASSERT_EQ(4u, second.size());
    EXPECT_EQ(first.at(1).get(), second.at(1).get());
    EXPECT_EQ("/usr/bin/exec", second.at(40)->exePath);
    EXPECT_EQ("/usr/bin/exec", second.at(41)->parentExePath);
    EXPECT_EQ("/usr/bin/child", second.at(41)->exePath);
    EXPECT_EQ("p42 -y", second.at(42)->cmdline);
    EXPECT_EQ("/usr/bin/parent", first.at(40)->exePath);
    EXPECT_EQ("/usr/bin/parent", first.at(41)->parentExePath);
    EXPECT_EQ("p42 -x", first.at(42)->cmdline);
}

}  // namespace
