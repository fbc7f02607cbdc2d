#pragma once

namespace SDK {

// CPU usage of one process in hundredths of a percent of one CPU (9000 is 90 %,
// a process busy on four CPUs reads 40000).
class CpuCalcUtils {
public:
    CpuCalcUtils();
    ~CpuCalcUtils();

    // Binds the calculator to a process. True when the process exists.
    bool Init(int pid);
    // The first call gives the average over the process's life so far, each later
    // call the usage since the previous one. False when the process is gone.
    bool GetCpuUsage(int& usage);

private:
    int pid_ = -1;
    long long startTicks_ = -1;  // identity of the process against pid reuse
    unsigned long long lastCpuTicks_ = 0;
    long long lastWallMs_ = -1;  // CLOCK_MONOTONIC ms at the previous sample
};

}  // namespace SDK
