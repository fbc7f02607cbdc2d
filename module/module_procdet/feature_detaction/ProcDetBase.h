#pragma once

#include <map>
#include <memory>
#include <string>

#include "collect/ProcsMessage.h"

namespace Engine {

// Finding bits a detector ORs into a process's flags.
enum ProcDetFlag : unsigned int {
    PROC_TMP = 0x001,      // executable under /tmp/ or /var/tmp
    PROC_HIDDEN = 0x002,   // executable path holds "/."
    PROC_DELETED = 0x004,  // executable deleted
    LOGIN_OTHERS = 0x008,  // many connections kept to remote ports 22, 139, 445
    CONNECT_BIP = 0x010,   // connected to a blacklisted address
    HIGHCPU = 0x020,       // CPU usage above the threshold
    STRINGS = 0x040,       // keywords in the executable or a mapped file
    CMDLINE = 0x080,       // command line names another program
    PACKER = 0x100,        // reserved
};

// Detail keys.
inline constexpr const char* kDetailCpu = "dt_cpu";
inline constexpr const char* kDetailBlackIp = "dt_bip";
inline constexpr const char* kDetailConnSum = "dt_conn_sum";
inline constexpr const char* kDetailStrings = "dt_strings";
inline constexpr const char* kDetailStringsSo = "dt_str_so";

using ProcRecord = std::shared_ptr<ProcsMessage::procInfo>;
using NumDetails = std::map<std::string, long>;
using StrDetails = std::map<std::string, std::string>;

// A detector run by the manager over every process of a cycle.
class ProcDetBase {
public:
    virtual ~ProcDetBase() = default;
    // Short name for log lines.
    virtual std::string GetName() = 0;
    // Once per cycle in which the detector is due; false: skip me this cycle.
    virtual bool Prepare() = 0;
    // May OR bits into `flags` and add details under its own keys. False: drop me
    // for the rest of this cycle.
    virtual bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                              StrDetails& strDetails) = 0;
    // At the end of every cycle in which Prepare returned true.
    virtual void Finish() = 0;
};

}  // namespace Engine
