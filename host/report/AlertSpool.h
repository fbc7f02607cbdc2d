#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "SpoolLossLog.h"
#include "SpoolPositions.h"
#include "SpoolSegments.h"

namespace Agent {

// The durable queue between the report task and the sinks. Alert lines are
// appended to segment files (<dir>/<first offset>.seg, 0600, in a 0700
// directory) and synced to disk once per batch; every sink reads from its own
// committed offset, saved in <dir>/<sink>.pos (written beside and renamed, so
// a crash leaves the old or the new offset, never half of one). Offsets count
// bytes since the spool was first made and never go back, so an offset names
// one line for the life of the spool.
//
// One agent owns a spool: Open locks <dir>/lock (flock) for the life of the
// object. <dir>/sinks records every sink that ever had a position, so a lost
// .pos is told apart from a new sink.
//
// Segments every sink has passed are removed. Past `maxBytes` the oldest
// segments go even when a sink still needs them: those alerts are counted and
// the episode logged when it starts and when it ends, with the count.
//
// Damage (a cut or garbled line, a segment removed or cut short, a position
// that points nowhere) is skipped, never stalled on: each stretch lost is
// logged once with its segment, offset and size, and counted; a position that
// cannot be trusted starts its sink again from the oldest spooled alert, so
// damage may repeat alerts but never loses them silently.
//
// This class is the queue and its locking; the segment files (SpoolSegments),
// the positions (SpoolPositions), the reading of a segment
// (SpoolSegmentReader) and the losses (SpoolLossLog) are each a class of their
// own. Thread-safe: one writer (the report task) and any number of readers (sinks).
class AlertSpool {
public:
    enum class OpenResult {
        kOpen,
        kRefused,  // the directory or a file in it is not the agent's alone, or cannot be used
        kBusy,     // another process holds the lock
    };

    AlertSpool(std::string dir, uint64_t maxBytes);
    ~AlertSpool();

    // Whether `dir` (or, when it is still to be made, the directory above it) is a
    // place a spool can be kept: writable, not on a kernel file system, not a symbolic
    // link. Looks only; Open makes and locks it. False with the reason.
    static bool CheckPlace(const std::string& dir, std::string& error);

    AlertSpool(const AlertSpool&) = delete;
    AlertSpool& operator=(const AlertSpool&) = delete;

    // Creates or checks the directory (a refused one is not touched further),
    // locks it, finds the segments of an earlier run and cuts a line left
    // half-written by a crash. The reason in `error` otherwise. May be called
    // again after a refusal.
    OpenResult Open(std::string& error);
    bool IsOpen() const { return open_.load(); }

    // Appends whole lines (each ending in '\n') and syncs them. When the spool
    // is not open or the disk refuses, the batch is dropped: counted, logged
    // once per episode.
    bool Append(const std::vector<std::string>& lines);

    // Up to `maxLines` whole lines that follow each other from `offset` (past
    // the first, at most `maxBytes` together). Before the first line, `offset`
    // moves forward over what cannot be delivered: alerts dropped while the
    // spool was full, and damaged or missing stretches (logged and counted).
    // Either lines come back, or `offset` moved, or it is at the end. False
    // only when a segment could not be read (logged): then nothing moved.
    bool Read(uint64_t& offset, size_t maxLines, size_t maxBytes, std::vector<std::string>& lines);

    // Waits up to `timeout` for lines past `offset`; true when there are some.
    bool WaitForLines(uint64_t offset, std::chrono::milliseconds timeout);
    // Wakes every waiter (used when the sinks stop).
    void WakeAll();

    // The committed offset of `sink`: as saved by an earlier run, else the end
    // (a new sink starts with what arrives after it was added). A sink known
    // from an earlier run whose position is missing, unreadable, past the end,
    // in a missing stretch or not at a line start starts from the oldest
    // spooled alert (logged).
    uint64_t LoadCursor(const std::string& sink);
    bool SaveCursor(const std::string& sink, uint64_t offset, std::string& error);

    uint64_t GetEnd() const;
    uint64_t GetBytes() const { return segments_.GetBytes(); }
    uint64_t GetDroppedFull() const { return droppedFull_.load(); }           // refused by the disk
    uint64_t GetDroppedEvicted() const { return droppedEvicted_.load(); }     // removed over max_bytes
    uint64_t GetDroppedDamaged() const { return losses_.GetDroppedLines(); }  // damaged lines skipped
    uint64_t GetLostBytes() const {
        return losses_.GetLostBytes();
    }  // in damaged lines and missing stretches
    const std::string& GetDirectory() const { return dir_; }

private:
    bool TakeLock(std::string& error, bool& busy);
    // Removes the oldest segments every sink has passed, then those over maxBytes (counted, logged).
    void RemoveDelivered();
    void EvictOverLimit();
    // Forgets the segment that starts at `start`, and the losses noted before the oldest left.
    void ForgetSegment(uint64_t start, bool unlink);
    // Why `offset` cannot be a sink's position (empty when it can). Holds mutex_.
    std::string CheckPosition(uint64_t offset) const;

    const std::string dir_;
    const uint64_t maxBytes_;

    mutable std::mutex mutex_;  // over everything below but the counters
    std::condition_variable appended_;
    std::atomic<bool> open_{false};
    SpoolSegments segments_;
    SpoolPositions positions_;
    SpoolLossLog losses_;
    int dirFd_ = -1;
    int lockFd_ = -1;

    std::atomic<uint64_t> droppedFull_{0};
    std::atomic<uint64_t> droppedEvicted_{0};
    uint64_t fullInEpisode_ = 0;
    uint64_t evictedInEpisode_ = 0;
};

}  // namespace Agent
