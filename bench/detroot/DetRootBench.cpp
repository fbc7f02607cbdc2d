// Cost of the privilege-escalation task's two hot paths:
//  - ProcsMessageAction: fork events (one /proc/PPID/status read each) for a root
//    parent, a plain-user parent and a parent already gone, and identity events;
//  - CheckProcess: one full check over a synthetic table of N processes whose
//    liveness and parent status come from a fake /proc (no escalation, so the cost
//    is the selection and both checks for every forked process);
//  - a long walk of forks through the pid space with full checks: resident
//    memory before, at its peak and after.
#include <Poco/File.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "collect/ProcsMessage.h"
#include "feature_detroot/ProcDetRootFullTask.h"
#include "sdk/ProcessUtils.h"
#include "support/TestEngine.h"

namespace {

using Record = std::shared_ptr<Engine::ProcsMessage::procInfo>;

Record MakeRecord(int pid, int ppid, int64_t startTime) {
    auto record = std::make_shared<Engine::ProcsMessage::procInfo>();
    record->pid = pid;
    record->ppid = ppid;
    record->uid = record->euid = record->gid = record->egid = 1000;
    record->name = "worker";
    record->exePath = "/usr/local/bin/worker";
    record->cmdline = "/usr/local/bin/worker --serve";
    record->startTime = startTime;
    record->startTimeSec = time(nullptr) - 5;
    record->parentExePath = "/bin/bash";
    record->parentStartTime = 1;
    return record;
}

// A child of ours running as user 1000, as a plain-user parent to read.
pid_t StartUserProcess() {
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(1000, 1000, 1000) != 0) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
    usleep(100 * 1000);
    return child;
}

void BM_ForkEvent(benchmark::State& state) {
    pid_t userParent = -1;
    int ppid = getpid();  // root, with capabilities
    if (state.range(0) == 1) {
        ppid = userParent = StartUserProcess();
    } else if (state.range(0) == 2) {
        ppid = 0x3ffffff;  // beyond pid_max: gone
    }
    auto* task = new Engine::ProcDetRootFullTask();
    std::vector<Record> records;
    for (int i = 0; i < 4096; ++i) {
        records.push_back(MakeRecord(100000 + i, ppid, 1000 + i));
    }
    size_t next = 0;
    for (auto _ : state) {
        const Record& record = records[next];
        task->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_FORK, record);
        next = (next + 1) % records.size();
    }
    state.SetItemsProcessed(state.iterations());
    task->release();
    if (userParent > 0) {
        kill(userParent, SIGKILL);
        waitpid(userParent, nullptr, 0);
    }
}
BENCHMARK(BM_ForkEvent)->ArgName("parent_root0_user1_gone2")->Arg(0)->Arg(1)->Arg(2);

void BM_UidEvent(benchmark::State& state) {
    auto* task = new Engine::ProcDetRootFullTask();
    std::vector<Record> records;
    for (int i = 0; i < 4096; ++i) {
        records.push_back(MakeRecord(100000 + i, getpid(), 1000 + i));
        task->ProcsMessageAction(100000 + i, Engine::PROCS_EVENT_FORK, records.back());
    }
    size_t next = 0;
    for (auto _ : state) {
        const Record& record = records[next];
        task->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_UID, record);
        next = (next + 1) % records.size();
    }
    state.SetItemsProcessed(state.iterations());
    task->release();
}
BENCHMARK(BM_UidEvent);

long ResidentBytes() {
    long pages = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// A fake /proc with `count` live processes under one plain-user parent (pid 10).
class FakeProc {
public:
    explicit FakeProc(int count) {
        char pattern[] = "/tmp/detroot-bench-XXXXXX";
        root_ = mkdtemp(pattern);
        Write(10, 1000);
        for (int i = 0; i < count; ++i) {
            Write(1000 + i, 1000);
        }
        SDK::ProcessUtils::SetProcRoot(root_);
    }
    ~FakeProc() {
        SDK::ProcessUtils::SetProcRoot("/proc");
        Poco::File(root_).remove(true);
    }

private:
    void Write(int pid, unsigned int uid) const {
        const std::string dir = root_ + "/" + std::to_string(pid);
        Poco::File(dir).createDirectories();
        std::ofstream(dir + "/status")
            << "Name:\tworker\nUid:\t" << uid << "\t" << uid << "\t" << uid << "\t" << uid << "\nGid:\t"
            << uid << "\t" << uid << "\t" << uid << "\t" << uid << "\nCapEff:\t0000000000000000\n";
        std::ofstream(dir + "/stat") << pid << " (worker) S 10 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 100 0 0\n";
    }
    std::string root_;
};

// A walk of 1,000,000 short-lived forks from a plain-user parent through a
// 4,194,304 pid space (Debian's pid_max with systemd), with a full check every
// 20,000 forks (the task takes at most ~2,000 fork events a second and checks
// every 10 s by default). Fork records of processes that are gone are dropped
// at each check, so after the walk (and a heap trim, which the agent does every
// 30 s) the resident memory is where it started. The parent is gone, the
// cheapest path to a fork record; the events are fed to the task directly.
void BM_ForkWalkMemory(benchmark::State& state) {
    const long forks = state.range(0);
    const long pidSpace = state.range(1);
    constexpr long kForksPerCheck = 20000;
    TestSupport::TestEngine engine;
    FakeProc proc(0);  // no child is alive at its check
    engine.procs().SetTable({{10, MakeRecord(10, 1, 1)}});
    for (auto _ : state) {
        auto* task = new Engine::ProcDetRootFullTask();
        ::malloc_trim(0);
        const long before = ResidentBytes();
        long peak = before;
        size_t most = 0;
        const long stride = std::max(1L, (pidSpace - 300) / forks);
        for (long fork = 0; fork < forks; ++fork) {
            const int pid = static_cast<int>(300 + (fork * stride) % (pidSpace - 300));
            task->ProcsMessageAction(pid, Engine::PROCS_EVENT_FORK, MakeRecord(pid, 0x3ffffff, 1000 + fork));
            if ((fork + 1) % kForksPerCheck == 0) {
                most = std::max(most, task->GetForkRecordCount());
                peak = std::max(peak, ResidentBytes());
                task->CheckProcess();
            }
        }
        task->CheckProcess();
        ::malloc_trim(0);
        state.counters["records_at_most"] = static_cast<double>(most);
        state.counters["records_after"] = static_cast<double>(task->GetForkRecordCount());
        state.counters["rss_peak_MiB"] = static_cast<double>(peak - before) / (1 << 20);
        state.counters["rss_after_MiB"] = static_cast<double>(ResidentBytes() - before) / (1 << 20);
        task->release();
    }
}
BENCHMARK(BM_ForkWalkMemory)->Args({1000000, 4194304})->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_FullCheck(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    TestSupport::TestEngine engine;
    FakeProc proc(count);
    auto* task = new Engine::ProcDetRootFullTask();
    Engine::ProcsFullTask::ProcsMap table;
    table[10] = MakeRecord(10, 1, 1);
    for (int i = 0; i < count; ++i) {
        Record record = MakeRecord(1000 + i, 10, 1000 + i);
        task->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_FORK, record);
        table[record->pid] = std::make_shared<Engine::ProcsMessage::procInfo>(*record);
    }
    engine.procs().SetTable(table);
    for (auto _ : state) {
        task->CheckProcess();
    }
    state.SetItemsProcessed(state.iterations() * count);
    if (engine.report().GetCount() != 0) {
        state.SkipWithError("an unchanged table raised an alarm");
    }
    task->release();
}
BENCHMARK(BM_FullCheck)->Arg(2000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
