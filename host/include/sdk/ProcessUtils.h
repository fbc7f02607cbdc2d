#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace SDK {

// Facts about live processes, read from /proc (root set by SetProcRoot, for tests).
// Every call reports failure through its result (non-zero, or false) when the
// process is gone or a file is unreadable or malformed; none throws.
class ProcessUtils {
public:
    // Identities and capabilities from /proc/PID/status. The identity fields start
    // at 0xFFFFFFFF (unknown) and the capability sets at 0 before they are read.
    struct procStatus {
        unsigned int uid = 0xFFFFFFFFu;  // Uid: real, effective, saved, filesystem
        unsigned int euid = 0xFFFFFFFFu;
        unsigned int suid = 0xFFFFFFFFu;
        unsigned int fsuid = 0xFFFFFFFFu;
        unsigned int gid = 0xFFFFFFFFu;  // Gid: real, effective, saved, filesystem
        unsigned int egid = 0xFFFFFFFFu;
        unsigned int sgid = 0xFFFFFFFFu;
        unsigned int fsgid = 0xFFFFFFFFu;
        int ppid = 0;
        std::string name;
        uint64_t capPrm = 0;  // CapPrm: permitted set
        uint64_t capEff = 0;  // CapEff: effective set
        uint64_t capBnd = 0;  // CapBnd: bounding set
    };

    // Where a process runs: its container, when its cgroup names one, and its pid
    // and mount namespaces (inode numbers; 0 when unreadable).
    struct ProcessContext {
        std::string containerRuntime;  // "docker", "containerd", "cri-o", "podman", "kubernetes", ...
        std::string containerId;
        unsigned long pidNamespace = 0;
        unsigned long mountNamespace = 0;
        // Both namespaces are those of pid 1 as the agent sees it (the host's, unless the
        // agent itself runs in a container), or the agent's own where pid 1's are unreadable.
        bool hostNamespaces = false;
    };

    // The login session of a process (see GetSessionInfo for where it comes from).
    struct SessionInfo {
        std::string user;
        std::string host;  // remote host, empty for a local login
        std::string terminal;
        long loginTime = 0;  // seconds since the epoch
    };

    // The /proc root ("/proc" unless changed; tests point it at a fake tree).
    static void SetProcRoot(const std::string& root);
    static const std::string& GetProcRoot();
    // "<proc root>/<pid>/<entry>", e.g. the exe link or maps of a process.
    static std::string GetProcessFilePath(long pid, const char* entry);

    static bool IsProcessAlive(unsigned int pid);
    // Arguments joined by single blanks, at most maxLength bytes. 0 on success.
    static int GetProcessCmdline(int pid, std::string& out, int maxLength);
    // Target of /proc/PID/exe (" (deleted)" kept). 0 on success.
    static int GetProcessExePath(unsigned int pid, std::string& out);
    // From /proc/PID/stat; each output may be null. startTime is in clock ticks
    // since boot, name is the comm field. 0 on success.
    static int GetProcessStatInfo(int pid, int* ppid, long* startTime, std::string* name,
                                  char* state = nullptr);
    // Inodes of the process's sockets (links "socket:[N]" in /proc/PID/fd). 0 on success.
    static int GetProcessSocketFd(int pid, std::set<long>& inodes);
    // 0 on success.
    static int GetProcessStatusInfo(int pid, procStatus& out);
    // The container and namespaces of a process. 0 when the process could be read.
    static int GetProcessContext(int pid, ProcessContext& out);
    // User name of a uid (getpwuid_r). 0 on success.
    static int GetProcessUser(unsigned int uid, std::string& name);
    // The login session of a process: logind's session name where logind runs, else
    // the pid of the nearest of the process and its ancestors (login, sshd) that
    // recorded a login in utmp. 0 on success.
    static int GetProcessSessionId(int pid, std::string& sessionId);
    // The session record: from logind (libsystemd), else the utmp USER_PROCESS entry
    // recorded by the pid. 0 on success.
    static int GetSessionInfo(const std::string& sessionId, SessionInfo& info);
    // SHA-256 of a process's executable: of /proc/PID/exe when readable (works for
    // deleted files; fromLink true), else of exePath. Files over `limit` bytes are
    // refused. 0 on success.
    static int GetProcessFileSha256(int pid, const std::string& exePath, std::string& hex, bool& fromLink,
                                    long limit);
};

}  // namespace SDK
