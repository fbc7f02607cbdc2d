#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Agent {

// The durable queue between the report task and the sinks. Alert lines are
// appended to segment files (<dir>/<first offset>.seg, 0600, in a 0700
// directory) and synced to disk once per batch; every sink reads from its own
// committed offset, saved in <dir>/<sink>.pos (written beside and renamed, so
// a crash leaves the old or the new offset, never half of one). Offsets count
// bytes since the spool was first made and never go back, so an offset names
// one line for the life of the spool.
//
// Segments every sink has passed are removed. Past `maxBytes` the oldest
// segments go even when a sink still needs them: those alerts are counted and
// the episode logged when it starts and when it ends, with the count.
// Thread-safe: one writer (the report task) and any number of readers (sinks).
class AlertSpool {
public:
    AlertSpool(std::string dir, uint64_t maxBytes);
    ~AlertSpool();

    AlertSpool(const AlertSpool&) = delete;
    AlertSpool& operator=(const AlertSpool&) = delete;

    // Creates or checks the directory, finds the segments of an earlier run and
    // cuts a line left half-written by a crash. False with the reason otherwise.
    bool Open(std::string& error);

    // Appends whole lines (each ending in '\n') and syncs them. When the disk
    // refuses, the batch is dropped: counted, logged once per episode.
    bool Append(const std::vector<std::string>& lines);

    // Up to `maxLines` whole lines from `offset`. An offset that points before
    // the oldest kept line (dropped while its sink was down) moves to it.
    // Returns the offset after the last line read.
    uint64_t Read(uint64_t& offset, size_t maxLines, size_t maxBytes, std::vector<std::string>& lines);

    // Waits up to `timeout` for lines past `offset`; true when there are some.
    bool WaitForLines(uint64_t offset, std::chrono::milliseconds timeout);
    // Wakes every waiter (used when the sinks stop).
    void WakeAll();

    // The committed offset of `sink`: as saved by an earlier run, else the end
    // (a new sink starts with what arrives after it was added).
    uint64_t LoadCursor(const std::string& sink);
    bool SaveCursor(const std::string& sink, uint64_t offset, std::string& error);

    uint64_t GetEnd() const;
    uint64_t GetBytes() const { return bytes_.load(); }
    uint64_t GetDroppedFull() const { return droppedFull_.load(); }        // refused by the disk
    uint64_t GetDroppedEvicted() const { return droppedEvicted_.load(); }  // removed over max_bytes
    const std::string& GetDirectory() const { return dir_; }

private:
    struct Segment {
        std::string path;
        uint64_t size = 0;
    };

    bool LoadSegments(std::string& error);
    bool StartSegment(std::string& error);
    void RemoveDelivered();
    void EvictOverLimit();
    uint64_t CountLinesFrom(const Segment& segment, uint64_t start, uint64_t from) const;
    uint64_t MinCursor() const;
    std::string SegmentPath(uint64_t start) const;

    const std::string dir_;
    const uint64_t maxBytes_;
    const uint64_t segmentBytes_;

    mutable std::mutex mutex_;
    std::condition_variable appended_;
    std::map<uint64_t, Segment> segments_;     // by first offset
    std::map<std::string, uint64_t> cursors_;  // committed offset per sink
    int fd_ = -1;                              // the newest segment, open for appending
    int dirFd_ = -1;
    uint64_t end_ = 0;

    std::atomic<uint64_t> bytes_{0};
    std::atomic<uint64_t> droppedFull_{0};
    std::atomic<uint64_t> droppedEvicted_{0};
    uint64_t fullInEpisode_ = 0;
    uint64_t evictedInEpisode_ = 0;
};

}  // namespace Agent
