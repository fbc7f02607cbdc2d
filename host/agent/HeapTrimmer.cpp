#include "HeapTrimmer.h"

#include <malloc.h>

namespace Agent {

bool HeapTrimmer::TrimWhenSlack() {
    const struct mallinfo2 info = ::mallinfo2();
    if (info.fordblks < kSlackBytes) {
        return false;
    }
    ::malloc_trim(0);
    return true;
}

}  // namespace Agent
