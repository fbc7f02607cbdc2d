#pragma once

// Parsers of the /proc texts that the host reads, apart from the reading so that
// captured samples can be fed to them. The one place these formats are parsed:
// the SDK's readers, the process collector and the tests all go through them.
// Pure: no I/O, no allocation but for JoinCmdline's result.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace SDK {

// The fields of /proc/PID/stat that the host uses. `comm` points into the text.
struct ProcStatFields {
    int pid = 0;
    std::string_view comm;
    char state = '?';
    int ppid = 0;
    int pgrp = 0;
    int session = 0;
    unsigned long long utime = 0;  // clock ticks
    unsigned long long stime = 0;
    long long startTime = 0;  // clock ticks since boot
};

// /proc/PID/stat. False on a truncated or malformed text (a positive pid, one
// state character, a non-negative ppid and start time are required).
bool ParseStat(std::string_view text, ProcStatFields& out);

// The lines of /proc/PID/status that the host uses. `name` points into the text;
// identities not read stay 0xFFFFFFFF, capability sets 0.
struct ProcStatusFields {
    std::string_view name;
    int ppid = 0;
    unsigned int uid = 0xFFFFFFFFu, euid = 0xFFFFFFFFu, suid = 0xFFFFFFFFu, fsuid = 0xFFFFFFFFu;
    unsigned int gid = 0xFFFFFFFFu, egid = 0xFFFFFFFFu, sgid = 0xFFFFFFFFu, fsgid = 0xFFFFFFFFu;
    uint64_t capPrm = 0;
    uint64_t capEff = 0;
    uint64_t capBnd = 0;
    bool hasName = false;
    bool hasUid = false;  // four decimal ids
    bool hasGid = false;
    bool hasCapEff = false;  // hexadecimal, at most 64 bits
};

// CAP_SETGID and CAP_SETUID, as bit numbers of a capability set.
constexpr unsigned kCapSetgidBit = 6;
constexpr unsigned kCapSetuidBit = 7;

// /proc/PID/status: Name, PPid, Uid, Gid and the capability sets CapPrm, CapEff,
// CapBnd (a malformed line leaves its fields unread). True when Name, Uid and Gid
// were all read, as a kernel always writes them.
bool ParseStatus(std::string_view text, ProcStatusFields& out);

// /proc/PID/cmdline: at most `maxLength` bytes of the NUL-separated arguments,
// trailing NULs dropped, the others turned into blanks.
void JoinCmdline(std::string_view raw, std::size_t maxLength, std::string& out);

// A /proc/PID/fd link target "socket:[N]". False for anything else.
bool ParseSocketLink(std::string_view target, long& inode);

// /proc/uptime: seconds since boot (first field) in milliseconds.
bool ParseUptime(std::string_view text, long long& uptimeMs);

// The container a /proc/PID/cgroup text names, from the cgroup path its runtime
// gives it: "docker", "containerd", "cri-o", "podman" (a 64-hex id), "kubernetes"
// (the id of a pod's container whose runtime the path does not tell),
// "systemd-nspawn" and "lxc" (the machine or container name). False when no line
// names one (a process of the host).
bool ParseCgroupContainer(std::string_view cgroupText, std::string& runtime, std::string& id);

// A namespace link target such as "pid:[4026531836]": the namespace's inode number.
bool ParseNamespaceLink(std::string_view target, unsigned long& inode);

// One data line of /proc/net/tcp or /proc/net/tcp6. Addresses keep the form the
// kernel prints: each 32-bit word is the in-memory value (network byte order), as
// inet_addr gives it; a tcp line fills word 0 only.
struct NetTcpLineFields {
    uint32_t local[4] = {};
    uint32_t remote[4] = {};
    unsigned int localPort = 0;
    unsigned int remotePort = 0;
    int state = 0;  // 1 established, 2 SYN sent, 10 listen, ...
    unsigned int uid = 0;
    long inode = 0;
    std::size_t fieldCount = 0;  // blank-separated fields on the line
};

// "sl local remote st tx:rx tr:when retrnsmt uid timeout inode ...". False for the
// header and for a line with fewer than 10 fields, an address that is not 8 (tcp)
// or 32 (tcp6) hex digits, a port above 0xFFFF, a state above 0xFF, a uid beyond
// 32 bits or an inode beyond a long.
bool ParseNetTcpLine(std::string_view line, bool ipv6, NetTcpLineFields& out);

// The "btime" line of /proc/stat: the boot time in seconds since the epoch.
bool ParseBootTime(std::string_view procStat, int64_t& bootTimeSec);

}  // namespace SDK
