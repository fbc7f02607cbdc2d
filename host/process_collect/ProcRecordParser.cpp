#include "ProcRecordParser.h"

namespace Engine {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

void SkipBlanks(std::string_view text, size_t& pos) {
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) {
        ++pos;
    }
}

// Reads a decimal number at `pos` (after blanks); false when there is none or it overflows.
bool ReadUnsigned(std::string_view text, size_t& pos, uint64_t& value) {
    SkipBlanks(text, pos);
    if (pos >= text.size() || !IsDigit(text[pos])) {
        return false;
    }
    uint64_t result = 0;
    while (pos < text.size() && IsDigit(text[pos])) {
        const uint64_t digit = static_cast<uint64_t>(text[pos] - '0');
        if (result > (UINT64_MAX - digit) / 10) {
            return false;
        }
        result = result * 10 + digit;
        ++pos;
    }
    value = result;
    return true;
}

bool ReadSigned(std::string_view text, size_t& pos, int64_t& value) {
    SkipBlanks(text, pos);
    const bool negative = pos < text.size() && text[pos] == '-';
    if (negative) {
        ++pos;
    }
    uint64_t magnitude = 0;
    if (!ReadUnsigned(text, pos, magnitude) || magnitude > static_cast<uint64_t>(INT64_MAX)) {
        return false;
    }
    value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

bool SkipField(std::string_view text, size_t& pos) {
    SkipBlanks(text, pos);
    if (pos >= text.size() || text[pos] == '\n') {
        return false;
    }
    while (pos < text.size() && text[pos] != ' ' && text[pos] != '\n') {
        ++pos;
    }
    return true;
}

bool ReadHex(std::string_view text, size_t& pos, uint64_t& value) {
    SkipBlanks(text, pos);
    uint64_t result = 0;
    size_t digits = 0;
    for (; pos < text.size() && digits < 16; ++pos, ++digits) {
        const char c = text[pos];
        unsigned nibble;
        if (IsDigit(c)) {
            nibble = static_cast<unsigned>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            nibble = static_cast<unsigned>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            nibble = static_cast<unsigned>(c - 'A' + 10);
        } else {
            break;
        }
        result = (result << 4) | nibble;
    }
    value = result;
    return digits > 0;
}

// "Uid:\t0\t0\t0\t0": real, effective, saved (filesystem ignored).
bool ReadIdTriple(std::string_view line, unsigned int& real, unsigned int& effective, unsigned int& saved) {
    size_t pos = 0;
    uint64_t values[3];
    for (uint64_t& v : values) {
        if (!ReadUnsigned(line, pos, v) || v > 0xFFFFFFFFu) {
            return false;
        }
    }
    real = static_cast<unsigned int>(values[0]);
    effective = static_cast<unsigned int>(values[1]);
    saved = static_cast<unsigned int>(values[2]);
    return true;
}

}  // namespace

ProcRecordParser::ProcRecordParser(int64_t bootTimeSec, long clockTicks)
    : bootTimeSec_(bootTimeSec), clockTicks_(clockTicks > 0 ? clockTicks : 100) {}

bool ProcRecordParser::ParseStat(std::string_view text, ProcStatFields& out) {
    // The name may hold blanks and ')', so it runs from the first '(' to the last ')'.
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return false;
    }
    size_t pos = 0;
    int64_t pid = 0;
    if (!ReadSigned(text.substr(0, open), pos, pid) || pid <= 0 || pid > INT32_MAX) {
        return false;
    }
    pos = close + 1;
    SkipBlanks(text, pos);
    if (pos >= text.size()) {
        return false;
    }
    const char state = text[pos++];
    int64_t ppid = 0;
    if (!ReadSigned(text, pos, ppid) || ppid < 0 || ppid > INT32_MAX) {
        return false;
    }
    // Fields 5 to 21 lie between ppid and the start time.
    for (int field = 5; field <= 21; ++field) {
        if (!SkipField(text, pos)) {
            return false;
        }
    }
    int64_t startTime = 0;
    if (!ReadSigned(text, pos, startTime) || startTime < 0) {
        return false;
    }
    out.pid = static_cast<int>(pid);
    out.comm = text.substr(open + 1, close - open - 1);
    out.state = state;
    out.ppid = static_cast<int>(ppid);
    out.startTime = startTime;
    return true;
}

bool ProcRecordParser::ParseStatus(std::string_view text, ProcStatusFields& out) {
    size_t lineStart = 0;
    while (lineStart < text.size() && !(out.hasUid && out.hasGid && out.hasCapEff)) {
        size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string_view::npos) {
            lineEnd = text.size();
        }
        const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;
        if (line.compare(0, 4, "Uid:") == 0) {
            out.hasUid = ReadIdTriple(line.substr(4), out.uid, out.euid, out.suid);
        } else if (line.compare(0, 4, "Gid:") == 0) {
            out.hasGid = ReadIdTriple(line.substr(4), out.gid, out.egid, out.sgid);
        } else if (line.compare(0, 7, "CapEff:") == 0) {
            size_t pos = 7;
            out.hasCapEff = ReadHex(line, pos, out.capEff);
        }
    }
    return out.hasUid && out.hasGid;
}

void ProcRecordParser::JoinCmdline(std::string_view raw, std::string& out) {
    if (raw.size() > kMaxCmdline) {
        raw = raw.substr(0, kMaxCmdline);
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

bool ProcRecordParser::ParseBootTime(std::string_view procStat, int64_t& bootTimeSec) {
    size_t pos = 0;
    while (pos < procStat.size()) {
        if (procStat.compare(pos, 6, "btime ") == 0) {
            size_t numberPos = pos + 6;
            return ReadSigned(procStat, numberPos, bootTimeSec);
        }
        pos = procStat.find('\n', pos);
        if (pos == std::string_view::npos) {
            break;
        }
        ++pos;
    }
    return false;
}

void ProcRecordParser::FillStatus(std::string_view text, ProcsMessage::procInfo& out) {
    ProcStatusFields status;
    ParseStatus(text, status);
    out.uid = status.uid;
    out.euid = status.euid;
    out.suid = status.suid;
    out.gid = status.gid;
    out.egid = status.egid;
    out.sgid = status.sgid;
    out.capSetuid = (status.capEff >> kCapSetuidBit) & 1u;
    out.capSetgid = (status.capEff >> kCapSetgidBit) & 1u;
}

bool ProcRecordParser::Build(const ProcTexts& texts, ProcsMessage::procInfo& out) const {
    ProcStatFields stat;
    if (!ParseStat(texts.stat, stat)) {
        return false;
    }
    out.pid = stat.pid;
    out.ppid = stat.ppid;
    out.name.assign(stat.comm.data(), stat.comm.size());
    out.startTime = stat.startTime;
    out.startTimeSec = bootTimeSec_ + stat.startTime / clockTicks_;

    FillStatus(texts.status, out);
    JoinCmdline(texts.cmdline, out.cmdline);
    out.exePath.assign(texts.exe.data(), texts.exe.size());
    return true;
}

}  // namespace Engine
