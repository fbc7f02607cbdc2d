#include "ProcParsers.h"

#include <cerrno>
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

bool ParseStatText(const std::string& text, ProcStat& out) {
    // comm is written raw between parentheses and may itself hold blanks and ')',
    // so it ends at the last ')'.
    const std::string::size_type open = text.find('(');
    const std::string::size_type close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    ProcStat stat;
    if (open < 2 || text[open - 1] != ' ' || !ToInt(text.substr(0, open - 1), stat.pid)) {
        return false;
    }
    stat.comm = text.substr(open + 1, close - open - 1);

    // Fields after comm, numbered from 3 (state) as in proc(5).
    std::vector<std::string> fields;
    StrUtils::EasySplit(text.substr(close + 1), fields, " \n");
    constexpr std::size_t kStartTimeField = 22;
    if (fields.size() < kStartTimeField - 2 || fields[0].size() != 1) {
        return false;
    }
    auto field = [&fields](std::size_t number) -> const std::string& { return fields[number - 3]; };
    stat.state = field(3)[0];
    long long startTime = 0;
    if (!ToInt(field(4), stat.ppid) || !ToInt(field(5), stat.pgrp) || !ToInt(field(6), stat.session) ||
        !ToUnsigned(field(14), 10, stat.utime) || !ToUnsigned(field(15), 10, stat.stime) ||
        !ToSigned(field(kStartTimeField), startTime) || startTime < 0) {
        return false;
    }
    stat.startTime = startTime;
    out = stat;
    return true;
}

bool ParseStatusText(const std::string& text, ProcessUtils::procStatus& out) {
    ProcessUtils::procStatus status;
    bool haveName = false;
    bool haveUid = false;
    bool haveGid = false;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string::size_type colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        const std::string key = line.substr(0, colon);
        std::string value = line.substr(colon + 1);
        if (key == "Name") {
            // Only the one separating tab goes: a name may start or end with blanks.
            status.name = !value.empty() && value[0] == '\t' ? value.substr(1) : value;
            haveName = true;
            continue;
        }
        StrUtils::Trim(value);
        if (key == "Uid") {
            unsigned int* ids[4] = {&status.uid, &status.euid, &status.suid, &status.fsuid};
            haveUid = ParseIdQuad(value, ids);
        } else if (key == "Gid") {
            unsigned int* ids[4] = {&status.gid, &status.egid, &status.sgid, &status.fsgid};
            haveGid = ParseIdQuad(value, ids);
        } else if (key == "PPid") {
            ToInt(value, status.ppid);
        } else if (key == "CapPrm") {
            ParseCapSet(value, status.capPrm);
        } else if (key == "CapEff") {
            ParseCapSet(value, status.capEff);
        } else if (key == "CapBnd") {
            ParseCapSet(value, status.capBnd);
        }
    }
    if (!haveName || !haveUid || !haveGid) {
        return false;
    }
    out = status;
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
