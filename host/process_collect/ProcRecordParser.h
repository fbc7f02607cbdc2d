#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "collect/ProcsMessage.h"

namespace Engine {

// What a record needs from /proc/PID/stat.
struct ProcStatFields {
    int pid = 0;
    std::string_view comm;  // points into the parsed text
    char state = '?';
    int ppid = 0;
    int64_t startTime = 0;  // clock ticks since boot
};

// What a record needs from /proc/PID/status.
struct ProcStatusFields {
    unsigned int uid = 0xFFFFFFFFu, euid = 0xFFFFFFFFu, suid = 0xFFFFFFFFu;
    unsigned int gid = 0xFFFFFFFFu, egid = 0xFFFFFFFFu, sgid = 0xFFFFFFFFu;
    uint64_t capEff = 0;
    bool hasUid = false;
    bool hasGid = false;
    bool hasCapEff = false;
};

// The raw texts of one process as read from /proc; an empty view is a file that
// could not be read (exe: no executable, as for kernel threads and zombies).
struct ProcTexts {
    std::string_view stat;
    std::string_view status;
    std::string_view cmdline;  // NUL-separated arguments
    std::string_view exe;      // link target
};

// Turns the texts of /proc/PID/{stat,status,cmdline,exe} into a process record.
// Pure: no I/O, so captured samples can be fed to it.
class ProcRecordParser {
public:
    static constexpr size_t kMaxCmdline = 4096;
    static constexpr unsigned kCapSetgidBit = 6;
    static constexpr unsigned kCapSetuidBit = 7;

    // `bootTimeSec`: "btime" of /proc/stat; `clockTicks`: sysconf(_SC_CLK_TCK).
    ProcRecordParser(int64_t bootTimeSec, long clockTicks);

    // Fills `out` (except the parent fields). stat is required: false when it is
    // missing or malformed. Identities missing from status stay unknown (0xFFFFFFFF).
    bool Build(const ProcTexts& texts, ProcsMessage::procInfo& out) const;

    static bool ParseStat(std::string_view text, ProcStatFields& out);
    // True when both the Uid and Gid lines were found.
    static bool ParseStatus(std::string_view text, ProcStatusFields& out);
    // The identities and capabilities of a status text into a record; missing
    // ones become unknown (0xFFFFFFFF, no capability).
    static void FillStatus(std::string_view text, ProcsMessage::procInfo& out);
    // Arguments joined by blanks, at most kMaxCmdline bytes.
    static void JoinCmdline(std::string_view raw, std::string& out);
    // The "btime" line of /proc/stat.
    static bool ParseBootTime(std::string_view procStat, int64_t& bootTimeSec);

private:
    int64_t bootTimeSec_;
    long clockTicks_;
};

}  // namespace Engine
