#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

template <class F>
double TimeMs(F&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The value below which `fraction` of the samples lie (0.5: the median).
inline double Percentile(std::vector<double> samples, double fraction) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const size_t index = std::min(samples.size() - 1, static_cast<size_t>(fraction * samples.size()));
    return samples[index];
}

inline double Median(const std::vector<double>& samples) {
    return Percentile(samples, 0.5);
}

inline long long NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void RunSnapshotBench(int children, int rounds);
void RunStormBench(int forks, bool stall);
void RunBareConnectorBench(int forks);
void RunNetBench(int connections, int rounds);
void RunFreshBench(int children, int rounds, int compared);
