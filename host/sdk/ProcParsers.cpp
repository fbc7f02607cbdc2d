#include "ProcParsers.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "sdk/StrUtils.h"

namespace SDK {

namespace {

// strtoull/strtoll with the whole of `text` required to be a number.
bool ToUnsigned(const std::string& text, int base, unsigned long long& value) {
    if (text.empty() || text[0] == '-') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    value = std::strtoull(text.c_str(), &end, base);
    return errno == 0 && end != nullptr && *end == '\0';
}

bool ToSigned(const std::string& text, long long& value) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    value = std::strtoll(text.c_str(), &end, 10);
    return errno == 0 && end != nullptr && *end == '\0';
}

bool ToInt(const std::string& text, int& value) {
    long long wide = 0;
    if (!ToSigned(text, wide) || wide < -2147483648LL || wide > 2147483647LL) {
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

// Four decimal ids ("Uid:\t0\t0\t0\t0").
bool ParseIdQuad(const std::string& value, unsigned int* ids[4]) {
    std::vector<std::string> pieces;
    StrUtils::EasySplit(value, pieces, " \t");
    if (pieces.size() != 4) {
        return false;
    }
    unsigned int parsed[4];
    for (int i = 0; i < 4; ++i) {
        unsigned long long id = 0;
        if (!ToUnsigned(pieces[i], 10, id) || id > 0xFFFFFFFFULL) {
            return false;
        }
        parsed[i] = static_cast<unsigned int>(id);
    }
    for (int i = 0; i < 4; ++i) {
        *ids[i] = parsed[i];
    }
    return true;
}

bool ParseCapSet(const std::string& value, uint64_t& cap) {
    unsigned long long parsed = 0;
    if (!ToUnsigned(value, 16, parsed)) {
        return false;
    }
    cap = parsed;
    return true;
}

}  // namespace

namespace {

// The next field of a blank- or newline-separated text; false at its end.
bool NextField(std::string_view& rest, std::string_view& field) {
    const std::string_view::size_type begin = rest.find_first_not_of(" \n");
    if (begin == std::string_view::npos) {
        rest = {};
        return false;
    }
    rest.remove_prefix(begin);
    const std::string_view::size_type end = rest.find_first_of(" \n");
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

bool DecimalInt(std::string_view text, int& value) {
    long long wide = 0;
    if (!DecimalSigned(text, -2147483648LL, 2147483647LL, wide)) {
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

}  // namespace

bool ParseStatText(std::string_view text, ProcStat& out) {
    // comm is written raw between parentheses and may itself hold blanks and ')',
    // so it ends at the last ')'. Runs for every process of every detection cycle:
    // fields are walked in place, and comm (at most 15 bytes) fits a short string.
    const std::string_view::size_type open = text.find('(');
    const std::string_view::size_type close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return false;
    }
    ProcStat stat;
    if (open < 2 || text[open - 1] != ' ' || !DecimalInt(text.substr(0, open - 1), stat.pid)) {
        return false;
    }
    // Fields after comm, numbered from 3 (state) as in proc(5).
    constexpr int kStartTimeField = 22;
    std::string_view rest = text.substr(close + 1);
    std::string_view field;
    long long startTime = -1;
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
                ok = DecimalInt(field, stat.ppid);
                break;
            case 5:
                ok = DecimalInt(field, stat.pgrp);
                break;
            case 6:
                ok = DecimalInt(field, stat.session);
                break;
            case 14:
                ok = DecimalUnsigned(field, stat.utime);
                break;
            case 15:
                ok = DecimalUnsigned(field, stat.stime);
                break;
            case kStartTimeField:
                ok = DecimalSigned(field, 0, LLONG_MAX, startTime);
                break;
            default:
                break;
        }
        if (!ok) {
            return false;
        }
    }
    stat.comm.assign(text.data() + open + 1, close - open - 1);
    stat.startTime = startTime;
    out = std::move(stat);
    return true;
}

bool ParseStatusText(std::string_view text, ProcessUtils::procStatus& out) {
    // Read for the parent of every fork event: the lines are walked in place and
    // only the values of the keys kept are copied (each fits a short string).
    enum class Key { kOther, kUid, kGid, kPPid, kCapPrm, kCapEff, kCapBnd };
    ProcessUtils::procStatus status;
    bool haveName = false;
    bool haveUid = false;
    bool haveGid = false;
    std::string_view::size_type position = 0;
    while (position < text.size()) {
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
        const std::string_view rawValue = line.substr(colon + 1);
        if (key == "Name") {
            // Only the one separating tab goes: a name may start or end with blanks.
            status.name.assign(!rawValue.empty() && rawValue[0] == '\t' ? rawValue.substr(1) : rawValue);
            haveName = true;
            continue;
        }
        const Key which = key == "Uid"      ? Key::kUid
                          : key == "Gid"    ? Key::kGid
                          : key == "PPid"   ? Key::kPPid
                          : key == "CapPrm" ? Key::kCapPrm
                          : key == "CapEff" ? Key::kCapEff
                          : key == "CapBnd" ? Key::kCapBnd
                                            : Key::kOther;
        if (which == Key::kOther) {
            continue;
        }
        std::string value(rawValue);
        StrUtils::Trim(value);
        switch (which) {
            case Key::kUid: {
                unsigned int* ids[4] = {&status.uid, &status.euid, &status.suid, &status.fsuid};
                haveUid = ParseIdQuad(value, ids);
                break;
            }
            case Key::kGid: {
                unsigned int* ids[4] = {&status.gid, &status.egid, &status.sgid, &status.fsgid};
                haveGid = ParseIdQuad(value, ids);
                break;
            }
            case Key::kPPid:
                ToInt(value, status.ppid);
                break;
            case Key::kCapPrm:
                ParseCapSet(value, status.capPrm);
                break;
            case Key::kCapEff:
                ParseCapSet(value, status.capEff);
                break;
            case Key::kCapBnd:
                ParseCapSet(value, status.capBnd);
                break;
            case Key::kOther:
                break;
        }
    }
    if (!haveName || !haveUid || !haveGid) {
        return false;
    }
    out = std::move(status);
    return true;
}

std::string JoinCmdlineText(const std::string& raw, std::size_t maxLength) {
    std::string::size_type end = raw.find_last_not_of('\0');
    std::string joined = end == std::string::npos ? std::string() : raw.substr(0, end + 1);
    for (char& c : joined) {
        if (c == '\0') {
            c = ' ';
        }
    }
    if (joined.size() > maxLength) {
        joined.resize(maxLength);
    }
    return joined;
}

bool ParseSocketLink(const std::string& target, long& inode) {
    static const std::string kPrefix = "socket:[";
    if (target.size() <= kPrefix.size() + 1 || target.compare(0, kPrefix.size(), kPrefix) != 0 ||
        target.back() != ']') {
        return false;
    }
    long long value = 0;
    if (!ToSigned(target.substr(kPrefix.size(), target.size() - kPrefix.size() - 1), value) || value <= 0) {
        return false;
    }
    inode = static_cast<long>(value);
    return true;
}

bool ParseUptimeText(const std::string& text, long long& uptimeMs) {
    std::istringstream in(text);
    std::string first;
    if (!(in >> first)) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const double seconds = std::strtod(first.c_str(), &end);
    if (errno != 0 || end == nullptr || *end != '\0' || !(seconds >= 0.0)) {
        return false;
    }
    uptimeMs = static_cast<long long>(seconds * 1000.0);
    return true;
}

}  // namespace SDK
