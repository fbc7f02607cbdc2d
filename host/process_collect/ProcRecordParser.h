#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "collect/ProcsMessage.h"

namespace Engine {

// The raw texts of one process as read from /proc; an empty view is a file that
// could not be read (exe: no executable, as for kernel threads and zombies).
struct ProcTexts {
    std::string_view stat;
    std::string_view status;
    std::string_view cmdline;  // NUL-separated arguments
    std::string_view exe;      // link target
};

// Turns the texts of /proc/PID/{stat,status,cmdline,exe} into a process record.
// Pure: no I/O, so captured samples can be fed to it; the texts are parsed by
// the SDK's /proc parsers.
class ProcRecordParser {
public:
    static constexpr size_t kMaxCmdline = 4096;

    // `bootTimeSec`: "btime" of /proc/stat; `clockTicks`: sysconf(_SC_CLK_TCK).
    ProcRecordParser(int64_t bootTimeSec, long clockTicks);

    // Fills `out` (except the parent fields). stat is required: false when it is
    // missing or malformed. Identities missing from status stay unknown (0xFFFFFFFF).
    bool Build(const ProcTexts& texts, ProcsMessage::procInfo& out) const;

    // The identities and capabilities of a status text into a record; missing
    // ones become unknown (0xFFFFFFFF, no capability).
    static void FillStatus(std::string_view text, ProcsMessage::procInfo& out);

private:
    int64_t bootTimeSec_;
    long clockTicks_;
};

}  // namespace Engine
