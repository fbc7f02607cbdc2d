#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace Agent {

// The sinks' committed positions in one spool directory: each sink's offset,
// saved in <dir>/<sink>.pos (written beside and renamed, so a crash leaves the
// old or the new offset, never half of one), and <dir>/sinks, the record of
// every sink that ever had a position there, so a lost .pos is told apart from
// a new sink. Not thread-safe: the spool serialises the bookkeeping; the file
// reads and writes (ReadSaved, Save) touch no state and need no lock.
class SpoolPositions {
public:
    enum class Saved { kNone, kUnreadable, kOffset };

    explicit SpoolPositions(std::string dir);

    // Reads the record of known sinks (at open).
    void LoadRecord();
    // Whether `sink` had a position here. Without a record, any sink may have had one.
    bool Known(const std::string& sink) const { return knownSinks_.count(sink) != 0; }
    bool RecordFound() const { return recordFound_; }
    // Adds `sink` to the record; false (with the reason) when the record could not be saved.
    bool Remember(const std::string& sink, std::string& error);

    std::string PathOf(const std::string& sink) const;
    // What <dir>/<sink>.pos holds.
    Saved ReadSaved(const std::string& sink, uint64_t& offset) const;
    // Saves `offset` as the position of `sink` (not synced: a lost update only
    // delivers some alerts again).
    bool Save(const std::string& sink, uint64_t offset, std::string& error) const;

    // The position the spool keeps for each sink, in memory.
    void Set(const std::string& sink, uint64_t offset) { cursors_[sink] = offset; }
    // The lowest position of all sinks, `end` when it is lower (or none has one).
    uint64_t Lowest(uint64_t end) const;

private:
    bool SaveRecord(std::string& error);

    const std::string dir_;
    std::map<std::string, uint64_t> cursors_;
    std::set<std::string> knownSinks_;
    bool recordFound_ = false;
};

}  // namespace Agent
