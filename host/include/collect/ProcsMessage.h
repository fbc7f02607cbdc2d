#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "framework/Message.h"

namespace Framework {
class Task;
}

namespace Engine {

// Classes of process events ("event flags") that "procs_real_task" publishes;
// all five are delivered (EXEC only while the kernel's process connector is
// usable, not when the task has to fall back to rescanning /proc).
//
// The record is read from /proc right after the event, with two exceptions that
// keep it true to the moment of the event: a FORK record describes the child as it
// was at the fork (its parent's program, command line and credentials, even when
// the child executed another program before it could be read), and a UID/GID
// record carries the ids the event announced. When the process is
// already gone, the event is still delivered with a record made from the event
// itself: pid, ppid, for UID/GID the new real and effective ids, the parent's
// path and start time when the parent can still be read; every other identity
// is 0xFFFFFFFF (unknown), start times are 0 and name, paths and cmdline empty.
enum ProcsEventFlag : unsigned int {
    PROCS_EVENT_EXEC = 1,  // a process executed a new program
    PROCS_EVENT_FORK = 2,  // a new process (not a thread) was created
    PROCS_EVENT_UID = 4,   // a process changed its user identities
    PROCS_EVENT_GID = 8,   // a process changed its group identities
    PROCS_EVENT_EXIT =
        16,  // a process exited (the record is the last one known: ids, ppid, start time, no paths)
};

// One process event: the pid, its event flag and the process's record, read
// from /proc when the event was seen.
class ProcsMessage : public Framework::Message {
public:
    // The process record. Identities are 0xFFFFFFFF when unknown.
    struct procInfo {
        int pid = 0;
        int ppid = 0;
        unsigned int uid = 0xFFFFFFFFu;   // real user id
        unsigned int euid = 0xFFFFFFFFu;  // effective user id
        unsigned int gid = 0xFFFFFFFFu;   // real group id
        unsigned int egid = 0xFFFFFFFFu;  // effective group id
        unsigned int capSetuid = 0;       // non-zero: CAP_SETUID in the effective set
        unsigned int capSetgid = 0;       // non-zero: CAP_SETGID in the effective set
        std::string name;                 // comm
        std::string exePath;              // /proc/PID/exe target, " (deleted)" kept; empty for kernel threads
        int64_t startTime = 0;            // clock ticks since boot (field 22 of stat)
        int64_t startTimeSec = 0;         // seconds since the epoch
        std::string cmdline;              // arguments joined by blanks
        std::string parentExePath;
        int64_t parentStartTime = 0;      // in the unit of startTime
        unsigned int suid = 0xFFFFFFFFu;  // saved user id
        unsigned int sgid = 0xFFFFFFFFu;  // saved group id
    };

    ProcsMessage(int pid, unsigned int flag, std::shared_ptr<procInfo> record);
    ~ProcsMessage() override;

    int GetProcPid() const { return pid_; }
    unsigned int GetProcFlag() const { return flag_; }
    // Shares (does not copy) the record; empty when the message has none.
    void GetProcInfo(std::shared_ptr<procInfo>& out) const { out = record_; }

    // Calls the target task's AbstractMessageReceiver::ProcsMessageAction. Returns 0.
    int MessageHandle(void* target) override;

private:
    int pid_;
    unsigned int flag_;
    std::shared_ptr<procInfo> record_;
};

// Subscribes `requester` to the target task's process events of `flag`.
class ProcsRegistMessage : public Framework::Message {
public:
    ProcsRegistMessage(unsigned int flag, Framework::Task* requester);
    ~ProcsRegistMessage() override;
    unsigned int GetFlag() const { return flag_; }
    Framework::Task* GetRequester() const { return requester_; }
    // Adds the consumer to the target and counts the flag in the target's
    // subscription table (the target must be a MixedTask). Returns AddConsumer's result.
    int MessageHandle(void* target) override;

private:
    unsigned int flag_;
    Framework::Task* requester_;
};

// Undoes one ProcsRegistMessage.
class ProcsUnRegistMessage : public Framework::Message {
public:
    ProcsUnRegistMessage(unsigned int flag, Framework::Task* requester);
    ~ProcsUnRegistMessage() override;
    unsigned int GetFlag() const { return flag_; }
    Framework::Task* GetRequester() const { return requester_; }
    // Returns 0.
    int MessageHandle(void* target) override;

private:
    unsigned int flag_;
    Framework::Task* requester_;
};

}  // namespace Engine
