#pragma once

// Parsers of /proc texts, apart from the reading so that they can be fed captured
// samples. Internal to libsdk (exported only for its tests).

#include <cstddef>
#include <string>
#include <string_view>

#include "sdk/ProcessUtils.h"

namespace SDK {

// The fields of /proc/PID/stat that the library uses.
struct ProcStat {
    int pid = 0;
    std::string comm;
    char state = '?';
    int ppid = 0;
    int pgrp = 0;
    int session = 0;
    unsigned long long utime = 0;  // clock ticks
    unsigned long long stime = 0;
    long long startTime = 0;  // clock ticks since boot
};

// /proc/PID/stat. False on a truncated or malformed text.
bool ParseStatText(std::string_view text, ProcStat& out);

// /proc/PID/status: Name, PPid, Uid, Gid and the capability sets. False unless
// Name, Uid and Gid were all read (a kernel always writes them).
bool ParseStatusText(std::string_view text, ProcessUtils::procStatus& out);

// /proc/PID/cmdline: NUL-separated arguments joined by blanks, trailing NULs
// dropped, at most `maxLength` bytes.
std::string JoinCmdlineText(const std::string& raw, std::size_t maxLength);

// A /proc/PID/fd link target "socket:[N]". False for anything else.
bool ParseSocketLink(const std::string& target, long& inode);

// /proc/uptime: seconds since boot (first field) in milliseconds.
bool ParseUptimeText(const std::string& text, long long& uptimeMs);

}  // namespace SDK
