#pragma once

namespace SDK {

class TimeUtils {
public:
    static long GetCurrentTimestampS();
    static long GetCurrentTimestampMs();
    // CPU time used so far by the calling thread, in milliseconds (the governor's tick).
    static unsigned long GetCurrentSystemTickUsed();
};

}  // namespace SDK
