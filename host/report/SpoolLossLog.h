#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace Agent {

// The stretches of the alert spool lost to damage: each logged once, whichever
// sink meets it first (several sinks meet the same damage, each from where its
// own position stood), and counted. Not thread-safe: the spool serialises calls;
// the counts may be read from any thread.
class SpoolLossLog {
public:
    // Logs and counts the stretch [from, to) as lost, less what an earlier note
    // covers; `lines` damaged alert lines in it, `where` the segment or file.
    void Note(uint64_t from, uint64_t to, uint64_t lines, const std::string& where, const std::string& what);
    // Forgets the stretches before `offset`: the spool no longer reaches them.
    void ForgetBefore(uint64_t offset);

    uint64_t GetLostBytes() const { return lostBytes_.load(); }
    uint64_t GetDroppedLines() const { return droppedLines_.load(); }

private:
    std::map<uint64_t, uint64_t> lost_;  // first offset to end
    std::atomic<uint64_t> lostBytes_{0};
    std::atomic<uint64_t> droppedLines_{0};
};

}  // namespace Agent
