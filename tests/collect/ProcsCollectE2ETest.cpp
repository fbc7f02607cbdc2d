// The process-collect module on this machine (run as root): a snapshot against
// what ps reports, and events for the test's own fork and identity change. The
// fields of one record are checked on captured texts (ProcRecordParserTest).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

#include "CollectHost.h"
#include "ProcsRealTask.h"
#include "collect/MixedTask.h"
#include "collect/ProcsFullTask.h"
#include "support/ChildProcess.h"
#include "support/WaitFor.h"

namespace {

using Engine::ProcsMessage;
using Record = ProcsMessage::procInfo;
using TestSupport::ChildProcess;
using TestSupport::WaitFor;

const std::string kSelfExe = std::filesystem::read_symlink("/proc/self/exe");

struct PsRow {
    int ppid;
    unsigned ruid, euid, rgid, egid;
    std::string exe;
};

std::map<int, PsRow> RunPs() {
    std::map<int, PsRow> rows;
    FILE* ps = ::popen("ps -eo pid=,ppid=,ruid=,euid=,rgid=,egid=,exe=", "r");
    if (ps == nullptr) {
        return rows;
    }
    char line[8192];
    while (std::fgets(line, sizeof line, ps) != nullptr) {
        std::istringstream fields(line);
        int pid = 0;
        PsRow row{};
        if (fields >> pid >> row.ppid >> row.ruid >> row.euid >> row.rgid >> row.egid) {
            std::getline(fields >> std::ws, row.exe);
            if (row.exe == "-") {
                row.exe.clear();
            }
            rows[pid] = row;
        }
    }
    ::pclose(ps);
    return rows;
}

class FreshSnapshotTask : public Engine::ProcsFullTask {
public:
    FreshSnapshotTask() : Engine::ProcsFullTask(1) {}
};

TEST(ProcsCollectE2E, SnapshotAgreesWithPs) {
    auto* task = new FreshSnapshotTask();
    Engine::ProcsFullTask::ProcsMap map;
    task->GetProcsMap(map);
    task->release();
    const std::map<int, PsRow> ps = RunPs();
    ASSERT_GT(ps.size(), 10u);

    // ps runs a moment later: a few processes may have come or gone in between.
    size_t common = 0;
    for (const auto& [pid, row] : ps) {
        const auto entry = map.find(pid);
        if (entry == map.end()) {
            continue;
        }
        ++common;
        const Record& record = *entry->second;
        SCOPED_TRACE("pid " + std::to_string(pid) + " " + record.name);
        EXPECT_EQ(row.ppid, record.ppid);
        EXPECT_EQ(row.ruid, record.uid);
        EXPECT_EQ(row.euid, record.euid);
        EXPECT_EQ(row.rgid, record.gid);
        EXPECT_EQ(row.egid, record.egid);
        EXPECT_EQ(row.exe, record.exePath);
    }
    EXPECT_GE(common + 10, ps.size());
    EXPECT_GE(common + 10, map.size());
}

// Records the process events it receives (on its own thread).
class EventSink : public Engine::MixedTask {
public:
    EventSink()
        : Engine::MixedTask("collect_event_sink_task", "collect_test_feature",
                            Framework::TaskCondition::TASK_TYPE_MESSAGE, 4096) {}
    void ProcsMessageAction(int pid, unsigned int flag, std::shared_ptr<Record> record) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back({pid, flag, std::move(record)});
    }
    // The first event of `flag` for `pid`, if any.
    std::shared_ptr<Record> Find(int pid, unsigned int flag) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& event : events_) {
            if (event.pid == pid && event.flag == flag) {
                return event.record ? event.record : std::make_shared<Record>();
            }
        }
        return nullptr;
    }
    bool Saw(int pid) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& event : events_) {
            if (event.pid == pid) {
                return true;
            }
        }
        return false;
    }

private:
    struct Event {
        int pid;
        unsigned int flag;
        std::shared_ptr<Record> record;
    };
    std::mutex mutex_;
    std::vector<Event> events_;
};

struct Observed {
    pid_t child = -1;
    std::shared_ptr<Record> forked, changed;
    bool polling = false;
    bool threadSeen = false;
};

// Subscribes to fork and identity events, forks a child that changes its ids to
// (uid, euid, euid) once its fork event was delivered, and collects what came.
void ObserveForkAndIdentityChange(uid_t uid, uid_t euid, Observed& seen) {
    CollectHost host;
    auto* real = host.Find<Engine::ProcsRealTask>(Engine::ProcsRealTask::kTaskName);
    ASSERT_NE(nullptr, real);
    auto* sink = new EventSink();
    sink->SetTaskEnabled(true);
    ASSERT_EQ(0, host.engine().RegisterTask(nullptr, sink, false));
    for (unsigned int flag : {Engine::PROCS_EVENT_FORK, Engine::PROCS_EVENT_UID}) {
        sink->SendDirectMsg(Engine::ProcsRealTask::kTaskName, new Engine::ProcsRegistMessage(flag, sink));
    }
    ASSERT_TRUE(WaitFor(
        [&] {
            return real->IsReady() && real->GetSubscriptionCount(Engine::PROCS_EVENT_FORK) == 1 &&
                   real->GetSubscriptionCount(Engine::PROCS_EVENT_UID) == 1;
        },
        10000));
    seen.polling = real->GetCounters().polling;

    // A thread is no process: its creation must not come as a fork.
    pid_t threadId = 0;
    std::thread([&threadId] { threadId = static_cast<pid_t>(::syscall(SYS_gettid)); }).join();

    int gate[2];
    ASSERT_EQ(0, ::pipe(gate));
    ChildProcess child([&](const std::function<void()>& notify) {
        char go;
        ::close(gate[1]);
        notify();
        if (::read(gate[0], &go, 1) == 1 && ::setresuid(uid, euid, euid) == 0) {
            ::pause();
        }
    });
    ::close(gate[0]);
    seen.child = child.pid();
    EXPECT_TRUE(WaitFor(
        [&] { return (seen.forked = sink->Find(seen.child, Engine::PROCS_EVENT_FORK)) != nullptr; }, 10000));
    EXPECT_EQ(1, ::write(gate[1], "x", 1));
    ::close(gate[1]);
    EXPECT_TRUE(WaitFor(
        [&] { return (seen.changed = sink->Find(seen.child, Engine::PROCS_EVENT_UID)) != nullptr; }, 10000));
    child.Kill();
    seen.threadSeen = sink->Saw(threadId);
    host.engine().UnRegisterTask(sink->GetTaskName());
    sink->release();
}

TEST(ProcsCollectE2E, ForkAndIdentityChangeReachASubscriber) {
    Observed seen;
    ASSERT_NO_FATAL_FAILURE(ObserveForkAndIdentityChange(1000, 1001, seen));
    ASSERT_FALSE(seen.polling) << "the process connector is not usable here";
    ASSERT_NE(nullptr, seen.forked);
    EXPECT_EQ(seen.child, seen.forked->pid);
    EXPECT_EQ(::getpid(), seen.forked->ppid);
    EXPECT_EQ(0u, seen.forked->uid);
    EXPECT_EQ(0u, seen.forked->euid);
    EXPECT_EQ(kSelfExe, seen.forked->exePath);
    EXPECT_EQ(kSelfExe, seen.forked->parentExePath);
    EXPECT_GT(seen.forked->startTime, 0);
    ASSERT_NE(nullptr, seen.changed);
    EXPECT_EQ(seen.child, seen.changed->pid);
    EXPECT_EQ(1000u, seen.changed->uid);
    EXPECT_EQ(1001u, seen.changed->euid);
    EXPECT_EQ(1001u, seen.changed->suid);
    EXPECT_EQ(seen.forked->startTime, seen.changed->startTime);
    EXPECT_FALSE(seen.threadSeen);
}

// The process connector lives in the initial network namespace only. A thread
// moved into a namespace of its own (threads it starts inherit it) cannot
// subscribe, as in many containers: the event task must fall back to rescanning /proc.
TEST(ProcsCollectE2E, WithoutTheConnectorRescansDeliverForkAndIdentityChange) {
    Observed seen;
    std::thread([&seen] {
        ASSERT_EQ(0, ::unshare(CLONE_NEWNET));
        ObserveForkAndIdentityChange(2000, 2000, seen);
    }).join();
    EXPECT_TRUE(seen.polling);
    ASSERT_NE(nullptr, seen.forked);
    EXPECT_EQ(::getpid(), seen.forked->ppid);
    EXPECT_EQ(0u, seen.forked->euid);
    ASSERT_NE(nullptr, seen.changed);
    EXPECT_EQ(2000u, seen.changed->uid);
    EXPECT_EQ(2000u, seen.changed->euid);
}

}  // namespace
