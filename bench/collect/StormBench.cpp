// A storm of forks against the event task and a subscriber, with and without a
// one-second stall of the subscriber's handler; and the bare connector for comparison.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "BenchUtil.h"
#include "ProcConnectorReader.h"
#include "ProcsRealTask.h"
#include "collect/MixedTask.h"
#include "framework/Engine.h"
#include "framework/Module.h"

namespace {

struct Arrival {
    int pid;
    long long ns;
};

class StormSink : public Engine::MixedTask {
public:
    explicit StormSink(long stallAt)
        : Engine::MixedTask("storm_sink_task", "bench_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                            4096),
          stallAt_(stallAt) {}
    void ProcsMessageAction(int pid, unsigned int flag,
                            std::shared_ptr<Engine::ProcsMessage::procInfo>) override {
        const long long now = NowNs();
        if (flag != Engine::PROCS_EVENT_FORK) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            arrivals_.push_back({pid, now});
        }
        if (++count_ == stallAt_) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
    std::vector<Arrival> Take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return arrivals_;
    }
    long Count() const { return count_.load(); }

private:
    const long stallAt_;
    std::atomic<long> count_{0};
    std::mutex mutex_;
    std::vector<Arrival> arrivals_;
};

class BenchModule : public Framework::Module {
public:
    BenchModule() : Framework::Module("collect_bench_module") {}
};

double CpuSeconds(int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU time of the whole process and of the forking thread, to tell the
// receivers' share apart (wall times are at the mercy of the machine's load).
struct CpuMark {
    double process = CpuSeconds(RUSAGE_SELF);
    double forker = CpuSeconds(RUSAGE_THREAD);
};

void ReportCpu(const CpuMark& before, const CpuMark& forkerAfter, size_t forks) {
    const double receivers =
        (CpuSeconds(RUSAGE_SELF) - before.process) - (forkerAfter.forker - before.forker);
    std::printf("  CPU of everything but the forking thread: %.3f s, %.1f us per fork\n", receivers,
                receivers * 1e6 / static_cast<double>(forks));
}

// Forks `count` children that exit at once; returns (pid, time just before fork()).
std::vector<Arrival> Storm(int count) {
    std::vector<Arrival> forks;
    forks.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const long long before = NowNs();
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(0);
        }
        if (pid > 0) {
            forks.push_back({pid, before});
        }
        if (i % 64 == 63) {
            while (::waitpid(-1, nullptr, WNOHANG) > 0) {
            }
        }
    }
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
    const double seconds = static_cast<double>(NowNs() - forks.front().ns) / 1e9;
    std::printf("storm: %zu forks in %.2f s (%.0f per second)\n", forks.size(), seconds,
                static_cast<double>(forks.size()) / seconds);
    return forks;
}

// Matches arrivals to forks by pid, first in first out (pids may wrap during the storm).
void Report(const char* title, const std::vector<Arrival>& forks, const std::vector<Arrival>& arrivals) {
    std::map<int, std::deque<long long>> started;
    for (const Arrival& fork : forks) {
        started[fork.pid].push_back(fork.ns);
    }
    std::vector<double> delaysUs;
    for (const Arrival& arrival : arrivals) {
        auto entry = started.find(arrival.pid);
        if (entry == started.end() || entry->second.empty()) {
            continue;
        }
        delaysUs.push_back(static_cast<double>(arrival.ns - entry->second.front()) / 1000.0);
        entry->second.pop_front();
    }
    std::printf(
        "%s: %zu of %zu forks received; delay fork() -> handler: median %.0f us, p99 %.0f us, max %.0f us\n",
        title, delaysUs.size(), forks.size(), Median(delaysUs), Percentile(delaysUs, 0.99),
        Percentile(delaysUs, 1.0));
}

}  // namespace

void RunStormBench(int forks, bool stall) {
    Framework::Engine engine;
    BenchModule module;
    auto* real = new Engine::ProcsRealTask();
    auto* sink = new StormSink(stall ? forks / 2 : 0);
    real->SetTaskEnabled(true);
    sink->SetTaskEnabled(true);
    module.RegisterTask(real, true);
    module.RegisterTask(sink, false);
    sink->SendDirectMsg(Engine::ProcsRealTask::kTaskName,
                        new Engine::ProcsRegistMessage(Engine::PROCS_EVENT_FORK, sink));
    while (!real->IsReady() || real->GetSubscriptionCount(Engine::PROCS_EVENT_FORK) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const CpuMark before;
    const std::vector<Arrival> made = Storm(forks);
    const CpuMark forkerDone;
    // Wait until the subscriber has caught up (or nothing moved for 3 seconds).
    long last = -1;
    for (int idle = 0; idle < 30;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const long now = sink->Count();
        idle = now == last && real->GetCounters().backlog == 0 ? idle + 1 : 0;
        last = now;
        if (now >= forks && real->GetCounters().backlog == 0) {
            break;
        }
    }
    const auto counters = real->GetCounters();
    Report(stall ? "event task, handler stalls 1 s" : "event task", made, sink->Take());
    ReportCpu(before, forkerDone, made.size());
    std::printf(
        "  producer: %lu events, %lu published, %lu partial records, %lu overruns, %lu rescans, %lu "
        "dropped\n",
        counters.events, counters.published, counters.partial, counters.overruns, counters.rescans,
        counters.dropped);
    module.UnInit();
    engine.StopAll();
    sink->release();
    real->release();
}

void RunBareConnectorBench(int forks) {
    Engine::ProcConnectorReader reader;
    std::string detail;
    if (reader.Open(detail) != Engine::ProcConnectorReader::OpenResult::kOk) {
        std::printf("bare connector: unavailable (%s)\n", detail.c_str());
        return;
    }
    std::atomic<bool> stop{false};
    std::vector<Arrival> arrivals;
    unsigned long overruns = 0;
    std::thread receiver([&] {
        std::vector<Engine::ProcEvent> events;
        std::string error;
        while (!stop.load()) {
            events.clear();
            if (reader.Receive(100, 1024, events, error) ==
                Engine::ProcConnectorReader::ReadResult::kOverrun) {
                ++overruns;
            }
            const long long now = NowNs();
            for (const auto& event : events) {
                if (event.kind == Engine::ProcEvent::Kind::kFork && event.IsProcessLevel()) {
                    arrivals.push_back({event.tgid, now});
                }
            }
        }
    });
    const CpuMark before;
    const std::vector<Arrival> made = Storm(forks);
    const CpuMark forkerDone;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    stop.store(true);
    receiver.join();
    Report("bare connector", made, arrivals);
    ReportCpu(before, forkerDone, made.size());
    std::printf("  receive buffer %d bytes, %lu overruns\n", reader.GetReceiveBufferBytes(), overruns);
}
