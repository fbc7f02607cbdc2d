#pragma once

#include <cstddef>
#include <mutex>
#include <unordered_set>
#include <vector>

namespace Engine {

// The pids whose records changed since the process table last looked: the event
// producer notes them, the table takes them when it refreshes. Safe from any
// thread.
class ProcChangeLog {
public:
    // More distinct pids than this between two refreshes are forgotten and the
    // table rescans /proc instead, so a host nobody asks about cannot grow it.
    static constexpr size_t kMaxPending = 65536;

    struct Changes {
        std::vector<int> changed;  // forked, executed, changed identity or name
        std::vector<int> exited;
        bool live = false;  // the notes are complete (events are being received)
        bool lost = false;  // some were lost (or the notes just began): rescan
    };

    // True while events are received; every switch to live asks for a rescan,
    // since what happened before is unknown.
    void SetLive(bool live);
    void NoteChanged(const std::vector<int>& pids);
    void NoteExited(const std::vector<int>& pids);
    // Events were lost (receive buffer overrun).
    void NoteLost();

    // Moves the notes into `out` (replacing its contents) and starts afresh.
    void Take(Changes& out);

private:
    void Overflow();  // holds mutex_

    std::mutex mutex_;
    std::unordered_set<int> changed_;
    std::unordered_set<int> exited_;
    bool live_ = false;
    bool lost_ = true;
};

}  // namespace Engine
