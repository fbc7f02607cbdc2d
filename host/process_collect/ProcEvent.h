#pragma once

#include <cstdint>

namespace Engine {

// One process event from the kernel's process connector, reduced to what the
// collector uses.
struct ProcEvent {
    enum class Kind { kAck, kFork, kExec, kUid, kGid, kComm, kExit, kOther };

    Kind kind = Kind::kOther;
    int pid = 0;                   // the thread concerned (fork: the child thread)
    int tgid = 0;                  // its process
    int parentPid = 0;             // fork: the parent thread; exit: the parent, when the kernel tells
    int parentTgid = 0;            // fork: the parent process; exit: likewise
    unsigned int realId = 0;       // uid/gid events: the new real id; ack: the error number
    unsigned int effectiveId = 0;  // uid/gid events: the new effective id
    uint64_t timestampNs = 0;      // since boot

    // Thread creation and exit also come as fork/exit events; a process is the thread-group leader.
    bool IsProcessLevel() const { return pid == tgid; }
};

}  // namespace Engine
