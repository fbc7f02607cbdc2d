#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace Agent {

// The segment files of one spool directory: <dir>/<first offset>.seg, 0600,
// each holding whole alert lines, named by the offset of their first byte
// (offsets count bytes since the spool was first made and never go back).
// Finds the segments of an earlier run and repairs what a crash left there,
// appends synced batches to the newest, starts a new one past `segmentBytes`,
// and removes them. Not thread-safe: the spool serialises calls; GetBytes may
// be read from any thread.
class SpoolSegments {
public:
    struct Segment {
        std::string path;
        uint64_t size = 0;
    };
    using Map = std::map<uint64_t, Segment>;  // by first offset

    SpoolSegments(std::string dir, uint64_t segmentBytes);
    ~SpoolSegments();

    SpoolSegments(const SpoolSegments&) = delete;
    SpoolSegments& operator=(const SpoolSegments&) = delete;

    // Lists the segments in the directory open as `dirFd` (kept, not owned),
    // trims one that runs into the next and cuts a line left half-written at
    // the end of the newest. False with the reason.
    bool Load(int dirFd, std::string& error);
    // Forgets every segment and closes the newest (an open that failed).
    void Clear();

    // Appends `batch` (whole lines) to the newest segment, or to a new one
    // when it is full or was changed behind the spool's back, and syncs it.
    // False with the reason; the segment then still holds whole lines only.
    bool Append(const std::string& batch, std::string& error);
    // Forgets the segment that starts at `start`; `unlink`: removes its file too.
    void Forget(uint64_t start, bool unlink);
    // The lines in `segment` (starting at `start`) from offset `from` on.
    uint64_t CountLinesFrom(const Segment& segment, uint64_t start, uint64_t from) const;

    const Map& List() const { return segments_; }
    uint64_t GetEnd() const { return end_; }  // the offset the next line gets
    uint64_t GetBytes() const { return bytes_.load(); }

private:
    bool Start(std::string& error);
    bool NewestIsIntact();
    std::string PathOf(uint64_t start) const;

    const std::string dir_;
    const uint64_t segmentBytes_;
    int dirFd_ = -1;
    Map segments_;
    int fd_ = -1;  // the newest segment, open for appending
    uint64_t end_ = 0;
    std::atomic<uint64_t> bytes_{0};
};

}  // namespace Agent
