#pragma once

namespace SDK {

class TimeUtils {
public:
    static long GetCurrentTimestampS();
    static long GetCurrentTimestampMs();
    // CPU time used so far by the calling thread, in milliseconds (the governor's
    // tick). Cheap: may repeat the thread's reading of up to ~2 ms of wall time ago.
    static unsigned long GetCurrentSystemTickUsed();
    // The same read from the thread's CPU clock now (a system call).
    static unsigned long GetThreadCpuMs();
};

}  // namespace SDK
