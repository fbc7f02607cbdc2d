#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Agent {

// Splits an alert line that is too long for where it goes (the spool, a syslog
// relay, a Kafka topic...) by its "process_info" entries into alerts of the
// same class, each a complete document under the limit. The text is cut and
// joined, never re-serialised, so every part keeps the bytes of the alert
// except "process_info", which holds a share of the entries, and "event_id",
// which each part derives from the alert's (a name-based UUID of the alert's
// id and the part's number: the same alert always splits into the same ids, so
// a sink that delivers it again sends the same parts).
//
// An entry that alone is too long has its longest strings cut (each ends in
// "...[cut]", none below 32 bytes) until it fits; one that still does not fit
// is left out and counted.
class AlertSplitter {
public:
    // Bytes the destination needs for one line (the line itself, in an envelope...).
    using Measure = std::function<size_t(const std::string& line)>;

    struct Result {
        std::vector<std::string> parts;  // each ends in '\n'
        std::string eventId;             // the alert's own "event_id" text ("" when it has none)
        size_t entries = 0;              // entries in the alert
        size_t cut = 0;                  // entries whose strings were cut to fit
        size_t left = 0;                 // entries left out: too long even when cut
    };

    // `line` (one JSON object, with or without its '\n') into parts of at most
    // `limit` bytes each as `measure` counts them. False with the reason when
    // the line is not an object or has no entries to split by.
    static bool Split(const std::string& line, size_t limit, const Measure& measure, Result& result,
                      std::string& error);

    // The tie between the parts of an alert split for the spool, carried in the
    // spool line only: a leading member that AlertSinkPump takes off before any
    // sink sees the line, so the documents stay as the module wrote them.
    struct Tie {
        std::string of;          // "event_id" of the alert as the module sent it
        uint64_t processes = 0;  // its "process_info" entries, over all parts
    };
    static std::string AddTie(const std::string& part, const Tie& tie);
    // Takes a leading tie off `line`; false (line untouched) when it has none.
    static bool TakeTie(std::string& line, Tie& tie);
};

}  // namespace Agent
