#pragma once

#include <cstdint>

namespace Engine {

// What the privilege-escalation task remembers of one process it saw forked.
struct RootProcInfo {
    // Identity against pid reuse: a record whose start time differs from the
    // live process's belongs to an earlier process and counts as absent.
    int64_t startTime = 0;
    // The process forked a child while holding capabilities; its later user
    // identity changes then no longer count as a drop of its root birth.
    bool parentMarked = false;
    // The process gave up its user identities; it is no longer born root.
    bool uidDropped = false;
    // The process descends from a legitimate root set-ID program.
    bool suidDescendant = false;
};

}  // namespace Engine
