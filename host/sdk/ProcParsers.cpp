#include "sdk/ProcParsers.h"

#include <climits>
#include <utility>

namespace SDK {

namespace {

// The next field of a blank- or newline-separated text; false at its end.
bool NextField(std::string_view& rest, std::string_view& field) {
    const std::string_view::size_type begin = rest.find_first_not_of(" \t\n");
    if (begin == std::string_view::npos) {
        rest = {};
        return false;
    }
    rest.remove_prefix(begin);
    const std::string_view::size_type end = rest.find_first_of(" \t\n");
    field = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    return true;
}

// Digits only, no sign, within 64 bits.
bool DecimalUnsigned(std::string_view text, unsigned long long& value) {
    if (text.empty()) {
        return false;
    }
    unsigned long long parsed = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const unsigned digit = static_cast<unsigned>(c - '0');
        if (parsed > (~0ULL - digit) / 10) {
            return false;
        }
        parsed = parsed * 10 + digit;
    }
    value = parsed;
    return true;
}

// An optional '-' and digits, within `low`..`high`.
bool DecimalSigned(std::string_view text, long long low, long long high, long long& value) {
    const bool negative = !text.empty() && text[0] == '-';
    unsigned long long magnitude = 0;
    if (!DecimalUnsigned(negative ? text.substr(1) : text, magnitude) ||
        magnitude > static_cast<unsigned long long>(LLONG_MAX)) {
        return false;
    }
    const long long parsed =
        negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    if (parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

bool DecimalInt(std::string_view text, int low, int& value) {
    long long wide = 0;
    if (!DecimalSigned(text, low, INT_MAX, wide)) {
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

// 1 to 16 hexadecimal digits.
bool Hex64(std::string_view text, uint64_t& value) {
    if (text.empty() || text.size() > 16) {
        return false;
    }
    uint64_t parsed = 0;
    for (const char c : text) {
        unsigned nibble;
        if (c >= '0' && c <= '9') {
            nibble = static_cast<unsigned>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            nibble = static_cast<unsigned>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            nibble = static_cast<unsigned>(c - 'A' + 10);
        } else {
            return false;
        }
        parsed = parsed << 4 | nibble;
    }
    value = parsed;
    return true;
}

// A value of exactly `count` blank-separated fields.
bool SplitFields(std::string_view value, std::string_view* fields, int count) {
    for (int i = 0; i < count; ++i) {
        if (!NextField(value, fields[i])) {
            return false;
        }
    }
    std::string_view extra;
    return !NextField(value, extra);
}

// Four decimal ids ("Uid:\t0\t0\t0\t0"), all or none.
bool IdQuad(std::string_view value, unsigned int* const ids[4]) {
    std::string_view fields[4];
    if (!SplitFields(value, fields, 4)) {
        return false;
    }
    unsigned int parsed[4];
    for (int i = 0; i < 4; ++i) {
        unsigned long long id = 0;
        if (!DecimalUnsigned(fields[i], id) || id > 0xFFFFFFFFULL) {
            return false;
        }
        parsed[i] = static_cast<unsigned int>(id);
    }
    for (int i = 0; i < 4; ++i) {
        *ids[i] = parsed[i];
    }
    return true;
}

bool CapSet(std::string_view value, uint64_t& cap) {
    std::string_view field;
    return SplitFields(value, &field, 1) && Hex64(field, cap);
}

}  // namespace

bool ParseStat(std::string_view text, ProcStatFields& out) {
    // comm is written raw between parentheses and may itself hold blanks and ')',
    // so it ends at the last ')'. Runs for every process of every snapshot and
    // detection cycle: the fields are walked in place.
    const std::string_view::size_type open = text.find('(');
    const std::string_view::size_type close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return false;
    }
    ProcStatFields stat;
    if (open < 2 || text[open - 1] != ' ' || !DecimalInt(text.substr(0, open - 1), 1, stat.pid)) {
        return false;
    }
    // Fields after comm, numbered from 3 (state) as in proc(5).
    constexpr int kStartTimeField = 22;
    std::string_view rest = text.substr(close + 1);
    std::string_view field;
    for (int number = 3; number <= kStartTimeField; ++number) {
        if (!NextField(rest, field)) {
            return false;
        }
        bool ok = true;
        switch (number) {
            case 3:
                ok = field.size() == 1;
                stat.state = field[0];
                break;
            case 4:
                ok = DecimalInt(field, 0, stat.ppid);
                break;
            case 5:
                ok = DecimalInt(field, INT_MIN, stat.pgrp);
                break;
            case 6:
                ok = DecimalInt(field, INT_MIN, stat.session);
                break;
            case 14:
                ok = DecimalUnsigned(field, stat.utime);
                break;
            case 15:
                ok = DecimalUnsigned(field, stat.stime);
                break;
            case kStartTimeField:
                ok = DecimalSigned(field, 0, LLONG_MAX, stat.startTime);
                break;
            default:
                break;
        }
        if (!ok) {
            return false;
        }
    }
    stat.comm = text.substr(open + 1, close - open - 1);
    out = stat;
    return true;
}

bool ParseStatus(std::string_view text, ProcStatusFields& out) {
    // Read for every fork event and snapshot: the lines are walked in place, and the
    // walk ends once every key used was seen (CapBnd comes about two thirds in).
    enum Key : unsigned {
        kName = 1,
        kPPid = 2,
        kUid = 4,
        kGid = 8,
        kCapPrm = 16,
        kCapEff = 32,
        kCapBnd = 64
    };
    constexpr unsigned kAll = 127;
    ProcStatusFields status;
    unsigned seen = 0;
    std::string_view::size_type position = 0;
    while (position < text.size() && seen != kAll) {
        std::string_view::size_type end = text.find('\n', position);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        const std::string_view line = text.substr(position, end - position);
        position = end + 1;
        const std::string_view::size_type colon = line.find(':');
        if (colon == std::string_view::npos) {
            continue;
        }
        const std::string_view key = line.substr(0, colon);
        const std::string_view value = line.substr(colon + 1);
        if (key == "Name") {
            // Only the one separating tab goes: a name may start or end with blanks.
            status.name = !value.empty() && value[0] == '\t' ? value.substr(1) : value;
            status.hasName = true;
            seen |= kName;
        } else if (key == "PPid") {
            std::string_view field;
            if (SplitFields(value, &field, 1)) {
                DecimalInt(field, 0, status.ppid);
            }
            seen |= kPPid;
        } else if (key == "Uid") {
            unsigned int* const ids[4] = {&status.uid, &status.euid, &status.suid, &status.fsuid};
            status.hasUid = IdQuad(value, ids);
            seen |= kUid;
        } else if (key == "Gid") {
            unsigned int* const ids[4] = {&status.gid, &status.egid, &status.sgid, &status.fsgid};
            status.hasGid = IdQuad(value, ids);
            seen |= kGid;
        } else if (key == "CapPrm") {
            CapSet(value, status.capPrm);
            seen |= kCapPrm;
        } else if (key == "CapEff") {
            status.hasCapEff = CapSet(value, status.capEff);
            seen |= kCapEff;
        } else if (key == "CapBnd") {
            CapSet(value, status.capBnd);
            seen |= kCapBnd;
        }
    }
    out = status;
    return status.hasName && status.hasUid && status.hasGid;
}

void JoinCmdline(std::string_view raw, std::size_t maxLength, std::string& out) {
    if (raw.size() > maxLength) {
        raw = raw.substr(0, maxLength);
    }
    while (!raw.empty() && raw.back() == '\0') {
        raw.remove_suffix(1);
    }
    out.assign(raw.data(), raw.size());
    for (char& c : out) {
        if (c == '\0') {
            c = ' ';
        }
    }
}

bool ParseSocketLink(std::string_view target, long& inode) {
    constexpr std::string_view kPrefix = "socket:[";
    if (target.size() <= kPrefix.size() + 1 || target.substr(0, kPrefix.size()) != kPrefix ||
        target.back() != ']') {
        return false;
    }
    long long value = 0;
    if (!DecimalSigned(target.substr(kPrefix.size(), target.size() - kPrefix.size() - 1), 1, LONG_MAX,
                       value)) {
        return false;
    }
    inode = static_cast<long>(value);
    return true;
}

bool ParseUptime(std::string_view text, long long& uptimeMs) {
    // "12345.67 23456.78\n": seconds with two decimals.
    std::string_view field;
    if (!NextField(text, field)) {
        return false;
    }
    const std::string_view::size_type dot = field.find('.');
    unsigned long long whole = 0;
    unsigned long long fraction = 0;
    const std::string_view decimals =
        dot == std::string_view::npos ? std::string_view() : field.substr(dot + 1);
    if (!DecimalUnsigned(field.substr(0, dot), whole) ||
        whole > static_cast<unsigned long long>(LLONG_MAX / 1000) ||
        (dot != std::string_view::npos && !DecimalUnsigned(decimals, fraction))) {
        return false;
    }
    long long milliseconds = 0;
    long long scale = 100;
    for (size_t i = 0; i < decimals.size() && i < 3; ++i, scale /= 10) {
        milliseconds += (decimals[i] - '0') * scale;
    }
    uptimeMs = static_cast<long long>(whole) * 1000 + milliseconds;
    return true;
}

namespace {

bool IsHexId(std::string_view text) {
    if (text.size() != 64) {
        return false;
    }
    for (const char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

// "<prefix><64 hex>.scope": the id, else empty.
std::string_view ScopeId(std::string_view segment, std::string_view prefix) {
    constexpr std::string_view kScope = ".scope";
    if (segment.size() != prefix.size() + 64 + kScope.size() || segment.substr(0, prefix.size()) != prefix ||
        segment.substr(segment.size() - kScope.size()) != kScope) {
        return {};
    }
    const std::string_view id = segment.substr(prefix.size(), 64);
    return IsHexId(id) ? id : std::string_view();
}

// systemd escapes "-" and other bytes of a unit name as a backslash, "x" and two hex digits.
std::string Unescape(std::string_view name) {
    std::string out;
    for (size_t i = 0; i < name.size(); ++i) {
        uint64_t byte = 0;
        if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x' &&
            Hex64(name.substr(i + 2, 2), byte)) {
            out.push_back(static_cast<char>(byte));
            i += 3;
        } else {
            out.push_back(name[i]);
        }
    }
    return out;
}

// One cgroup path, its segments tried from the deepest: the container's own
// cgroup lies below the slices of its pod or machine.
bool ContainerOfPath(std::string_view path, std::string& runtime, std::string& id) {
    static const std::pair<std::string_view, const char*> kScopes[] = {
        {"docker-", "docker"}, {"cri-containerd-", "containerd"}, {"crio-", "cri-o"}, {"libpod-", "podman"}};
    bool inKubepods = path.find("/kubepods") != std::string_view::npos;
    std::string_view parent;
    std::string_view rest = path;
    std::string_view found;
    const char* foundRuntime = nullptr;
    while (!rest.empty()) {
        const std::string_view::size_type slash = rest.find('/');
        const std::string_view segment = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (segment.empty()) {
            continue;
        }
        for (const auto& [prefix, name] : kScopes) {
            const std::string_view scoped = ScopeId(segment, prefix);
            if (!scoped.empty()) {
                found = scoped;
                foundRuntime = name;
            }
        }
        if (IsHexId(segment) && (parent == "docker" || inKubepods)) {
            found = segment;
            foundRuntime = parent == "docker" ? "docker" : "kubernetes";
        }
        constexpr std::string_view kMachine = "machine-";
        constexpr std::string_view kScope = ".scope";
        if (parent == "machine.slice" && segment.size() > kMachine.size() + kScope.size() &&
            segment.substr(0, kMachine.size()) == kMachine &&
            segment.substr(segment.size() - kScope.size()) == kScope && foundRuntime == nullptr) {
            runtime = "systemd-nspawn";
            id = Unescape(segment.substr(kMachine.size(), segment.size() - kMachine.size() - kScope.size()));
            return true;
        }
        constexpr std::string_view kLxcPayload = "lxc.payload.";
        if ((parent == "lxc" || segment.substr(0, kLxcPayload.size()) == kLxcPayload) &&
            foundRuntime == nullptr) {
            runtime = "lxc";
            id = std::string(parent == "lxc" ? segment : segment.substr(kLxcPayload.size()));
            return !id.empty();
        }
        parent = segment;
    }
    if (foundRuntime == nullptr) {
        return false;
    }
    runtime = foundRuntime;
    id = std::string(found);
    return true;
}

}  // namespace

bool ParseCgroupContainer(std::string_view cgroupText, std::string& runtime, std::string& id) {
    // "hierarchy-ID:controllers:path" per line; cgroup v2 has the one line "0::path".
    std::string_view::size_type position = 0;
    while (position < cgroupText.size()) {
        std::string_view::size_type end = cgroupText.find('\n', position);
        if (end == std::string_view::npos) {
            end = cgroupText.size();
        }
        const std::string_view line = cgroupText.substr(position, end - position);
        position = end + 1;
        const std::string_view::size_type first = line.find(':');
        const std::string_view::size_type second =
            first == std::string_view::npos ? std::string_view::npos : line.find(':', first + 1);
        if (second != std::string_view::npos && ContainerOfPath(line.substr(second + 1), runtime, id)) {
            return true;
        }
    }
    return false;
}

bool ParseNamespaceLink(std::string_view target, unsigned long& inode) {
    const std::string_view::size_type open = target.find(":[");
    unsigned long long value = 0;
    if (open == std::string_view::npos || target.empty() || target.back() != ']' ||
        !DecimalUnsigned(target.substr(open + 2, target.size() - open - 3), value) || value == 0 ||
        value > ULONG_MAX) {
        return false;
    }
    inode = static_cast<unsigned long>(value);
    return true;
}

namespace {

// "0100007F:1388", or for tcp6 four words then ":port".
bool NetEndpoint(std::string_view text, std::size_t words, uint32_t* address, unsigned int& port) {
    uint64_t value = 0;
    if (text.size() <= words * 8 || text[words * 8] != ':' || !Hex64(text.substr(words * 8 + 1), value) ||
        value > 0xFFFF) {
        return false;
    }
    port = static_cast<unsigned int>(value);
    for (std::size_t i = 0; i < words; ++i) {
        if (!Hex64(text.substr(i * 8, 8), value)) {
            return false;
        }
        address[i] = static_cast<uint32_t>(value);
    }
    return true;
}

}  // namespace

bool ParseNetTcpLine(std::string_view line, bool ipv6, NetTcpLineFields& out) {
    std::string_view fields[10];
    std::size_t count = 0;
    std::string_view rest = line;
    std::string_view field;
    while (NextField(rest, field)) {
        if (count < 10) {
            fields[count] = field;
        }
        ++count;
    }
    const std::size_t words = ipv6 ? 4 : 1;
    uint64_t state = 0;
    unsigned long long uid = 0;
    unsigned long long inode = 0;
    NetTcpLineFields parsed;
    if (count < 10 || fields[0].back() != ':' ||
        !NetEndpoint(fields[1], words, parsed.local, parsed.localPort) ||
        !NetEndpoint(fields[2], words, parsed.remote, parsed.remotePort) || !Hex64(fields[3], state) ||
        state > 0xFF || !DecimalUnsigned(fields[7], uid) || uid > 0xFFFFFFFFu ||
        !DecimalUnsigned(fields[9], inode) || inode > static_cast<unsigned long long>(LONG_MAX)) {
        return false;
    }
    parsed.state = static_cast<int>(state);
    parsed.uid = static_cast<unsigned int>(uid);
    parsed.inode = static_cast<long>(inode);
    parsed.fieldCount = count;
    out = parsed;
    return true;
}

bool ParseBootTime(std::string_view procStat, int64_t& bootTimeSec) {
    std::string_view::size_type position = 0;
    while (position < procStat.size()) {
        std::string_view::size_type end = procStat.find('\n', position);
        if (end == std::string_view::npos) {
            end = procStat.size();
        }
        std::string_view line = procStat.substr(position, end - position);
        position = end + 1;
        std::string_view key;
        std::string_view value;
        long long seconds = 0;
        if (NextField(line, key) && key == "btime" && SplitFields(line, &value, 1) &&
            DecimalSigned(value, 0, LLONG_MAX, seconds)) {
            bootTimeSec = seconds;
            return true;
        }
    }
    return false;
}

}  // namespace SDK
