#include "ProcRecordParser.h"

#include "sdk/ProcParsers.h"

namespace Engine {

ProcRecordParser::ProcRecordParser(int64_t bootTimeSec, long clockTicks)
    : bootTimeSec_(bootTimeSec), clockTicks_(clockTicks > 0 ? clockTicks : 100) {}

void ProcRecordParser::FillStatus(std::string_view text, ProcsMessage::procInfo& out) {
    // Identities missing from status stay unknown.
    SDK::ProcStatusFields status;
    SDK::ParseStatus(text, status);
    out.uid = status.uid;
    out.euid = status.euid;
    out.suid = status.suid;
    out.gid = status.gid;
    out.egid = status.egid;
    out.sgid = status.sgid;
    out.capSetuid = (status.capEff >> SDK::kCapSetuidBit) & 1u;
    out.capSetgid = (status.capEff >> SDK::kCapSetgidBit) & 1u;
}

bool ProcRecordParser::Build(const ProcTexts& texts, ProcsMessage::procInfo& out) const {
    SDK::ProcStatFields stat;
    if (!SDK::ParseStat(texts.stat, stat)) {
        return false;
    }
    out.pid = stat.pid;
    out.ppid = stat.ppid;
    out.name.assign(stat.comm.data(), stat.comm.size());
    out.startTime = stat.startTime;
    out.startTimeSec = bootTimeSec_ + stat.startTime / clockTicks_;

    FillStatus(texts.status, out);
    SDK::JoinCmdline(texts.cmdline, kMaxCmdline, out.cmdline);
    out.exePath.assign(texts.exe.data(), texts.exe.size());
    return true;
}

}  // namespace Engine
