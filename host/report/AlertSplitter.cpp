#include "AlertSplitter.h"

#include <Poco/SHA1Engine.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

constexpr size_t kNone = std::string::npos;
constexpr unsigned kMaxDepth = 256;
constexpr size_t kKeepBytes = 32;  // a cut string keeps at least this much
const char kCutMark[] = "...[cut]";
const char kTieHead[] = "{\"corvane_split\":{\"of\":\"";

// Where the parts of an alert come from in its text.
struct Layout {
    size_t idStart = kNone;  // the "event_id" string value, quotes included
    size_t idEnd = kNone;
    size_t open = kNone;   // the '[' of "process_info"
    size_t close = kNone;  // its ']'
    std::vector<std::pair<size_t, size_t>> entries;
};

size_t SkipSpace(const std::string& text, size_t at) {
    while (at < text.size() &&
           (text[at] == ' ' || text[at] == '\t' || text[at] == '\n' || text[at] == '\r')) {
        ++at;
    }
    return at;
}

// After the string that starts at `at` (its opening quote), or kNone.
size_t SkipString(const std::string& text, size_t at) {
    for (++at; at < text.size(); ++at) {
        if (text[at] == '\\') {
            ++at;
        } else if (text[at] == '"') {
            return at + 1;
        }
    }
    return kNone;
}

// After the value that starts at `at`, or kNone when it is cut or unbalanced.
// Only the structure is checked; a part is parsed in full where its text is
// not already known to be JSON.
size_t SkipValue(const std::string& text, size_t at) {
    std::string closers;
    do {
        at = SkipSpace(text, at);
        if (at >= text.size()) {
            return kNone;
        }
        const char c = text[at];
        if (c == '"') {
            at = SkipString(text, at);
        } else if (c == '{' || c == '[') {
            if (closers.size() >= kMaxDepth) {
                return kNone;
            }
            closers.push_back(c == '{' ? '}' : ']');
            ++at;
        } else if (c == '}' || c == ']') {
            if (closers.empty() || closers.back() != c) {
                return kNone;
            }
            closers.pop_back();
            ++at;
        } else if (c == ',' || c == ':') {
            if (closers.empty()) {
                return kNone;
            }
            ++at;
        } else {
            while (at < text.size() &&
                   std::string_view(",]} \t\r\n").find(text[at]) == std::string_view::npos) {
                ++at;
            }
        }
    } while (at != kNone && !closers.empty());
    return at;
}

bool Scan(const std::string& text, Layout& layout) {
    size_t at = SkipSpace(text, 0);
    if (at >= text.size() || text[at] != '{') {
        return false;
    }
    at = SkipSpace(text, at + 1);
    while (at < text.size() && text[at] != '}') {
        const size_t keyEnd = text[at] == '"' ? SkipString(text, at) : kNone;
        if (keyEnd == kNone) {
            return false;
        }
        const std::string key = text.substr(at + 1, keyEnd - at - 2);
        at = SkipSpace(text, keyEnd);
        if (at >= text.size() || text[at] != ':') {
            return false;
        }
        const size_t start = SkipSpace(text, at + 1);
        const size_t end = SkipValue(text, start);
        if (end == kNone) {
            return false;
        }
        if (key == "event_id" && text[start] == '"') {
            layout.idStart = start;
            layout.idEnd = end;
        } else if (key == "process_info" && text[start] == '[') {
            layout.open = start;
            layout.close = end - 1;
            layout.entries.clear();
            for (size_t entry = SkipSpace(text, start + 1); entry < layout.close;) {
                const size_t after = SkipValue(text, entry);
                if (after == kNone) {
                    return false;
                }
                layout.entries.emplace_back(entry, after);
                entry = SkipSpace(text, after);
                entry = entry < layout.close && text[entry] == ',' ? SkipSpace(text, entry + 1) : entry;
            }
        }
        at = SkipSpace(text, end);
        if (at < text.size() && text[at] == ',') {
            at = SkipSpace(text, at + 1);
        } else if (at >= text.size() || text[at] != '}') {
            return false;
        }
    }
    return at < text.size() && SkipSpace(text, at + 1) == text.size();
}

// The alert's text with `id` as its "event_id" and only `entries` in "process_info".
std::string Build(const std::string& text, const Layout& layout, const std::string& id,
                  const std::vector<const std::string*>& entries) {
    std::string joined;
    for (const std::string* entry : entries) {
        if (!joined.empty()) {
            joined.push_back(',');
        }
        joined += *entry;
    }
    // Two splices, in the order they come in the text.
    struct Splice {
        size_t from;
        size_t to;
        const std::string* with;
    } splices[2] = {{layout.open + 1, layout.close, &joined}, {layout.idStart, layout.idEnd, &id}};
    const size_t count = layout.idStart == kNone ? 1 : 2;
    if (count == 2 && splices[1].from < splices[0].from) {
        std::swap(splices[0], splices[1]);
    }
    std::string out;
    out.reserve(text.size());
    size_t at = 0;
    for (size_t index = 0; index < count; ++index) {
        out.append(text, at, splices[index].from - at).append(*splices[index].with);
        at = splices[index].to;
    }
    out.append(text, at, kNone);
    return out;
}

std::string DerivedId(const std::string& of, size_t part) {
    // A fixed namespace of this agent's own for the ids of split alerts.
    static const Poco::UUID kNamespace("4f7c2d1e-9b3a-4e5f-8a6b-0c1d2e3f4a5b");
    Poco::SHA1Engine sha1;
    return "\"" +
           Poco::UUIDGenerator::defaultGenerator()
               .createFromName(kNamespace, of + "/" + std::to_string(part), sha1,
                               Poco::UUID::UUID_NAME_BASED_SHA1)
               .toString() +
           "\"";
}

// Bytes of the JSON string text at `at` (inside the quotes) that form whole
// characters and escapes, at most `budget`.
size_t WholeUnits(const std::string& text, size_t at, size_t end, size_t budget) {
    size_t used = 0;
    while (at + used < end) {
        const auto c = static_cast<unsigned char>(text[at + used]);
        size_t unit = 1;
        if (c == '\\') {
            unit = text[at + used + 1] == 'u' ? 6 : 2;
        } else if (c >= 0xf0) {
            unit = 4;
        } else if (c >= 0xe0) {
            unit = 3;
        } else if (c >= 0xc0) {
            unit = 2;
        }
        if (used + unit > budget || at + used + unit > end) {
            break;
        }
        used += unit;
    }
    return used;
}

// Cuts the longest strings of one entry (an object's text) by about `excess`
// bytes in all. False when nothing is left to cut.
bool CutEntry(std::string& entry, size_t excess) {
    const size_t mark = sizeof(kCutMark) - 1;
    while (excess > 0) {
        // The longest string value of the entry.
        size_t best = kNone;
        size_t bestEnd = kNone;
        for (size_t at = SkipSpace(entry, 1); at < entry.size() && entry[at] == '"';) {
            const size_t keyEnd = SkipString(entry, at);
            if (keyEnd == kNone) {
                return false;
            }
            const size_t start = SkipSpace(entry, SkipSpace(entry, keyEnd) + 1);
            const size_t end = SkipValue(entry, start);
            if (end == kNone) {
                return false;
            }
            if (entry[start] == '"' && (best == kNone || end - start > bestEnd - best)) {
                best = start;
                bestEnd = end;
            }
            at = SkipSpace(entry, end);
            at = at < entry.size() && entry[at] == ',' ? SkipSpace(entry, at + 1) : entry.size();
        }
        const size_t length = best == kNone ? 0 : bestEnd - best - 2;  // inside the quotes
        if (length <= kKeepBytes + mark) {
            return false;
        }
        const size_t keep =
            WholeUnits(entry, best + 1, bestEnd - 1,
                       std::max(kKeepBytes, length > excess + mark ? length - excess - mark : 0));
        entry.replace(best + 1 + keep, length - keep, kCutMark);
        const size_t saved = length - keep - mark;
        excess = saved >= excess ? 0 : excess - saved;
    }
    return true;
}

}  // namespace

bool AlertSplitter::Split(const std::string& line, size_t limit, const Measure& measure, Result& result,
                          std::string& error) {
    result = Result();
    std::string text = line;
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    Layout layout;
    if (!Scan(text, layout)) {
        error = "not one JSON object";
        return false;
    }
    if (layout.open == kNone || layout.entries.empty()) {
        error = "no \"process_info\" entries to split it by";
        return false;
    }
    if (layout.idStart != kNone) {
        result.eventId = text.substr(layout.idStart + 1, layout.idEnd - layout.idStart - 2);
    }
    result.entries = layout.entries.size();
    const std::string sameId =
        layout.idStart == kNone ? "" : text.substr(layout.idStart, layout.idEnd - layout.idStart);
    const size_t base = measure(Build(text, layout, sameId, {}) + "\n");

    // Each entry's share of a part: its text, and a comma in "process_info" and
    // in whatever the measure adds per entry (an envelope's flag list).
    std::vector<std::string> entries;
    std::vector<size_t> costs;
    for (const auto& span : layout.entries) {
        std::string entry = text.substr(span.first, span.second - span.first);
        size_t alone = measure(Build(text, layout, sameId, {&entry}) + "\n");
        if (alone > limit) {
            if (entry.empty() || entry[0] != '{' || !CutEntry(entry, alone - limit) ||
                (alone = measure(Build(text, layout, sameId, {&entry}) + "\n")) > limit) {
                ++result.left;
                continue;
            }
            ++result.cut;
        }
        costs.push_back(alone - std::min(alone, base) + 2);
        entries.push_back(std::move(entry));
    }

    // Greedy: as many entries as fit, in order; a part the estimate got wrong is halved.
    std::vector<std::vector<const std::string*>> groups;
    size_t used = base;
    for (size_t index = 0; index < entries.size(); ++index) {
        if (groups.empty() || used + costs[index] > limit) {
            groups.emplace_back();
            used = base;
        }
        groups.back().push_back(&entries[index]);
        used += costs[index];
    }
    for (size_t group = 0; group < groups.size();) {
        const std::string part =
            Build(text, layout, DerivedId(result.eventId, group + 1), groups[group]) + "\n";
        if (measure(part) > limit && groups[group].size() > 1) {
            const size_t half = groups[group].size() / 2;
            std::vector<const std::string*> rest(groups[group].begin() + static_cast<long>(half),
                                                 groups[group].end());
            groups[group].resize(half);
            groups.insert(groups.begin() + static_cast<long>(group) + 1, std::move(rest));
            continue;  // the same part number, fewer entries
        }
        result.parts.push_back(part);
        ++group;
    }
    return true;
}

std::string AlertSplitter::AddTie(const std::string& part, const Tie& tie) {
    // An id that would need escaping cannot be taken off again by TakeTie: no tie then.
    if (part.empty() || part[0] != '{' || tie.of.find_first_of("\"\\") != std::string::npos) {
        return part;
    }
    return kTieHead + tie.of + "\",\"processes\":" + std::to_string(tie.processes) + "}," + part.substr(1);
}

bool AlertSplitter::TakeTie(std::string& line, Tie& tie) {
    const size_t head = sizeof(kTieHead) - 1;
    if (line.compare(0, head, kTieHead) != 0) {
        return false;
    }
    const size_t quote = line.find('"', head);
    static const std::string kCount = "\",\"processes\":";
    if (quote == kNone || line.compare(quote, kCount.size(), kCount) != 0) {
        return false;
    }
    size_t at = quote + kCount.size();
    uint64_t processes = 0;
    for (; at < line.size() && line[at] >= '0' && line[at] <= '9' && at < quote + kCount.size() + 19; ++at) {
        processes = processes * 10 + static_cast<uint64_t>(line[at] - '0');
    }
    if (line.compare(at, 2, "},") != 0) {
        return false;
    }
    tie.of = line.substr(head, quote - head);
    tie.processes = processes;
    line.replace(0, at + 2, "{");
    return true;
}

}  // namespace Agent
