#pragma once

namespace SDK {

// The agent's CPU governor: each task thread may use a share of one CPU (the
// agent's setting, 10 % unless configured). Long loops read their thread's CPU
// time (TimeUtils::GetCurrentSystemTickUsed) and, once they have used more than
// GetSuggestedRunTick() since they last checked, call AdjustThreadCpu, which
// sleeps long enough to bring the thread back under its share.
class InnerCpuCtrlUtils {
public:
    // Share of one CPU in percent, 0 to 100; 0 disables the governor.
    static void SetCpuShare(int percent);
    // How often and how long AdjustThreadCpu made threads sleep, for the agent's metrics.
    static unsigned long GetSleepCount();
    static double GetSleptSeconds();
    static int GetCpuShare();
    static bool IsEnabled();
    // CPU milliseconds a loop may use between two checks.
    static unsigned long GetSuggestedRunTick();
    // `tick` is the thread's CPU time now, `used` the CPU time since the caller's
    // last adjustment; `file`, `line` and `taskName` identify the caller in logs.
    static void AdjustThreadCpu(const char* file, int line, const char* taskName, unsigned long tick,
                                unsigned long used);
};

}  // namespace SDK
