#pragma once

#include <cstddef>

namespace Agent {

// Gives malloc's free pages back to the system once enough of them pile up. The
// detectors copy the process table every cycle and free the copy after, in
// several threads' arenas, and a storm of process events leaves records and
// messages freed all over the heap; glibc keeps such pages resident unless asked, so the
// agent's RSS would otherwise stay at its high-water mark.
class HeapTrimmer {
public:
    static constexpr size_t kSlackBytes = size_t{1} << 20;

    // Trims when malloc holds at least kSlackBytes free; true when it trimmed.
    bool TrimWhenSlack();
};

}  // namespace Agent
