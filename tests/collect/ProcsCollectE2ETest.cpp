// The process-collect module on this machine (run as root): events for the test's
// own fork and identity change, and the live table against a rescan. The fields of
// one record are checked on captured texts (ProcRecordParserTest).
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>  // program_invocation_name
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

#include "CollectHost.h"
#include "LiveProcsFullTask.h"
#include "ProcTableScanner.h"
#include "ProcsRealTask.h"
#include "collect/MixedTask.h"
#include "collect/ProcsFullTask.h"
#include "support/ChildProcess.h"
#include "support/FileText.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using Engine::ProcsMessage;
using Record = ProcsMessage::procInfo;
using TestSupport::ChildProcess;
using TestSupport::WaitFor;

const std::string kSelfExe = std::filesystem::read_symlink("/proc/self/exe");

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
    // The first event of `flag` (any flag when 0) for `pid`, if any.
    std::shared_ptr<Record> Find(int pid, unsigned int flag = 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& event : events_) {
            if (event.pid == pid && (flag == 0 || event.flag == flag)) {
                return event.record ? event.record : std::make_shared<Record>();
            }
        }
        return nullptr;
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
// With `regain` the child keeps root as its saved user and takes it back at once,
// so its first identity event is read after the second change.
void ObserveForkAndIdentityChange(uid_t uid, uid_t euid, bool regain, Observed& seen) {
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
        if (::read(gate[0], &go, 1) == 1 && ::setresuid(uid, euid, regain ? 0 : euid) == 0 &&
            (!regain || ::seteuid(0) == 0)) {
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
    seen.threadSeen = sink->Find(threadId) != nullptr;
    host.engine().UnRegisterTask(sink->GetTaskName());
    sink->release();
}

TEST(ProcsCollectE2E, ForkAndIdentityChangeReachASubscriber) {
    Observed seen;
    ASSERT_NO_FATAL_FAILURE(ObserveForkAndIdentityChange(1000, 1001, true, seen));
    ASSERT_FALSE(seen.polling) << "the process connector is not usable here";
    ASSERT_NE(nullptr, seen.forked);
    EXPECT_EQ(std::make_tuple(seen.forked->pid, seen.forked->ppid, seen.forked->uid, seen.forked->euid,
                              seen.forked->exePath, seen.forked->parentExePath),
              std::make_tuple(seen.child, ::getpid(), 0u, 0u, kSelfExe, kSelfExe));
    std::string argv0;
    std::getline(std::ifstream("/proc/self/cmdline"), argv0, '\0');
    EXPECT_EQ(0u, seen.forked->cmdline.rfind(argv0, 0)) << seen.forked->cmdline;  // the parent's arguments
    EXPECT_GT(seen.forked->startTime, 0);
    ASSERT_NE(nullptr, seen.changed);
    // The ids the event announced, not those the process took since.
    EXPECT_EQ(
        std::make_tuple(seen.changed->pid, seen.changed->uid, seen.changed->euid, seen.changed->startTime),
        std::make_tuple(seen.child, 1000u, 1001u, seen.forked->startTime));
    EXPECT_FALSE(seen.threadSeen);
}

// The process connector lives in the initial network namespace only. A thread
// moved into a namespace of its own (threads it starts inherit it) cannot
// subscribe, as in many containers: the event task must fall back to rescanning /proc.
TEST(ProcsCollectE2E, WithoutTheConnectorRescansDeliverForkAndIdentityChange) {
    Observed seen;
    std::thread([&seen] {
        ASSERT_EQ(0, ::unshare(CLONE_NEWNET));
        ObserveForkAndIdentityChange(2000, 2000, false, seen);
    }).join();
    EXPECT_TRUE(seen.polling);
    ASSERT_NE(nullptr, seen.forked);
    EXPECT_EQ(std::make_pair(seen.forked->ppid, seen.forked->euid), std::make_pair(::getpid(), 0u));
    ASSERT_NE(nullptr, seen.changed);
    EXPECT_EQ(std::make_pair(seen.changed->uid, seen.changed->euid), std::make_pair(2000u, 2000u));
}

// The fields of `pid` in `table` that a rescan must agree with, as text. Capabilities and
// command line count for the compared processes only: the table reads those of the others at
// their events.
std::string At(const Engine::ProcsFullTask::ProcsMap& table, int pid, bool compared = true) {
    const auto it = table.find(pid);
    if (it == table.end()) {
        return "(none)";
    }
    const Record& r = *it->second;
    std::ostringstream text;
    text << r.name << " ppid " << r.ppid << " uid " << r.uid << "/" << r.euid << "/" << r.suid << " gid "
         << r.gid << "/" << r.egid << "/" << r.sgid << " start " << r.startTime << " exe " << r.exePath
         << " parent " << r.parentExePath << " " << r.parentStartTime;
    if (compared) {
        text << " caps " << r.capSetuid << r.capSetgid << " [" << r.cmdline << "]";
    }
    return text.str();
}

// A child that, once `gate` is written, makes a change the kernel announces
// with no event: drops CAP_SETUID from its effective set, or rewrites its
// command line in place.
std::unique_ptr<ChildProcess> QuietChanger(int gate, bool capset) {
    return std::make_unique<ChildProcess>([gate, capset](const std::function<void()>& notify) {
        notify();
        char byte;
        if (::read(gate, &byte, 1) != 1) {
            return;
        }
        if (capset) {
            __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
            __user_cap_data_struct data[2];
            ::syscall(SYS_capget, &header, data);
            data[0].effective &= ~(1u << CAP_SETUID);
            ::syscall(SYS_capset, &header, data);
        } else {
            std::memset(program_invocation_name, 'x', std::strlen(program_invocation_name));
        }
        ::pause();
    });
}

// The table kept by events, after a churn of forks, execs, identity and name
// changes, exits and re-parenting, equals a rescan of /proc. A pid may differ
// only if it changed while the tables were taken (between two live tables or
// between two rescans); a table that missed an event stays wrong in both.
TEST(ProcsCollectE2E, LiveTableEqualsARescanAfterChurn) {
    CollectHost host;
    auto* full = host.Find<Engine::LiveProcsFullTask>(Engine::ProcsFullTask::kTaskName);
    auto* real = host.Find<Engine::ProcsRealTask>(Engine::ProcsRealTask::kTaskName);
    ASSERT_NE(nullptr, full);
    ASSERT_NE(nullptr, real);
    ASSERT_TRUE(WaitFor([real] { return real->IsReady(); }, 10000));
    ASSERT_FALSE(real->GetCounters().polling) << "the process connector is not usable here";
    full->SetRefreshSeconds(1);
    Engine::ProcsFullTask::ProcsMap live1, live2, scan1, scan2;
    full->GetProcsMap(live1);
    const unsigned long rescans = full->GetFullScanCount();

    // Programs deleted, replaced and moved while they run, a capset and a command
    // line rewritten in place, all after the table has read the processes.
    const TestSupport::TempDir bin("live_table");
    std::vector<std::unique_ptr<ChildProcess>> quiet;
    for (const char* name : {"unlinked", "replaced", "moved"}) {
        std::filesystem::copy_file("/bin/sleep", bin.path() + "/" + name);
        quiet.push_back(
            std::make_unique<ChildProcess>(std::vector<std::string>{bin.path() + "/" + name, "60"}));
    }
    int gate[2];
    ASSERT_EQ(0, ::pipe2(gate, O_CLOEXEC));
    quiet.push_back(QuietChanger(gate[0], true));
    quiet.push_back(QuietChanger(gate[0], false));
    const std::vector<int> compared = {quiet[3]->pid(), quiet[4]->pid()};
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    full->GetProcsMapFresh(live1, compared);  // reads them as they are before the changes
    std::filesystem::remove(bin.path() + "/unlinked");
    std::filesystem::copy_file("/bin/true", bin.path() + "/new");
    std::filesystem::rename(bin.path() + "/new", bin.path() + "/replaced");
    std::filesystem::rename(bin.path() + "/moved", bin.path() + "/moved-away");
    ASSERT_EQ(2, ::write(gate[1], "go", 2));
    ::close(gate[1]);
    ::close(gate[0]);
    const std::string cmdline = "/proc/" + std::to_string(compared[1]) + "/cmdline";
    ASSERT_TRUE(WaitFor([&] { return TestSupport::ReadText(cmdline)[0] == 'x'; }));

    // By i % 6: 0 runs a program; 1 takes new ids; 2 a new name; 3 is a parent that exits, its
    // child re-parented without an event; 4 came and went; 5 is a zombie, not reaped until the end.
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < 60; ++i) {
        children.push_back(std::make_unique<ChildProcess>([i](const std::function<void()>& notify) {
            if (i % 6 == 0 || (i % 6 == 3 && ::fork() == 0)) {
                ::execl("/bin/sleep", "sleep", i % 6 == 0 ? "60" : "20", static_cast<char*>(nullptr));
                ::_exit(127);
            }
            const bool stay = i % 6 == 1 ? ::setresgid(1000 + i, 1000, 1000) == 0 &&
                                               ::setresuid(1000 + i, 1000 + i, 1000) == 0
                              : i % 6 == 2 ? ::prctl(PR_SET_NAME, "churned") == 0
                                           : false;
            notify();
            if (stay) {
                ::pause();
            }
        }));
        if (i % 6 == 3 || i % 6 == 4) {
            children.back()->Wait();
        }
    }
    // Past the refresh interval, so the next table takes the churn in.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    full->GetProcsMapFresh(live1, compared);
    Engine::ProcTableScanner scanner("/proc");
    ASSERT_TRUE(scanner.TakeSnapshot(scan1));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    ASSERT_TRUE(scanner.TakeSnapshot(scan2));
    // Events are handled in order: once a later fork is in the table, so is
    // everything before it, however far the event task lagged on a busy machine.
    ChildProcess marker({"/bin/sleep", "30"});
    ASSERT_TRUE(WaitFor(
        [&] { return full->GetProcsMapFresh(live2, compared) > 0 && live2.count(marker.pid()) != 0; }));
    std::set<int> pids;
    for (const auto* table : {&live1, &scan1}) {
        for (const auto& entry : *table) {
            pids.insert(entry.first);
        }
    }
    int checked = 0;
    for (const int pid : pids) {
        const auto scanned = scan1.find(pid);
        if (At(live1, pid) != At(live2, pid) || At(scan1, pid) != At(scan2, pid) ||
            (scanned != scan1.end() && (scanned->second->ppid == 2 || pid == 2))) {
            continue;  // changed meanwhile, or a kernel thread (named after its current work)
        }
        ++checked;
        const bool named = std::count(compared.begin(), compared.end(), pid) != 0 || pid == ::getpid();
        EXPECT_EQ(At(live1, pid, named), At(scan1, pid, named)) << "pid " << pid;
    }
    for (const auto& child : children) {
        if (child->pid() > 0 && scan1.count(child->pid()) != 0) {
            EXPECT_EQ(1u, live1.count(child->pid())) << "churned pid " << child->pid();
        }
    }
    EXPECT_GT(checked, 40);
    if (real->GetCounters().overruns == 0) {
        EXPECT_EQ(rescans, full->GetFullScanCount()) << "kept up by events, not by rescans";
    }
}

}  // namespace
