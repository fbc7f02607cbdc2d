#include "sdk/ProcessUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <vector>

#include "KeptStatFiles.h"
#include "KeptStatusFile.h"
#include "SessionLookup.h"
#include "sdk/FileUtils.h"
#include "sdk/ProcParsers.h"

namespace SDK {

namespace {

// /proc/PID/status and stat are a few KiB at most; anything bigger is not /proc.
constexpr long kProcTextLimit = 256 * 1024;
// How far up the process tree a login is looked for (pid 1 ends the walk sooner).
constexpr int kMaxSessionAncestors = 64;

std::string& ProcRoot() {
    static std::string root = "/proc";
    return root;
}

std::string PidPath(long pid, const char* entry) {
    return ProcRoot() + "/" + std::to_string(pid) + "/" + entry;
}

// Reads at most `maxBytes` of a /proc file; more is cut off, not refused.
bool ReadHead(const std::string& path, std::string& out, size_t maxBytes) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return false;
    }
    std::string text;
    char buffer[4096];
    bool ok = true;
    while (text.size() < maxBytes) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            ok = false;  // e.g. ESRCH: the process exited while we read
            break;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    if (ok) {
        out.swap(text);
    }
    return ok;
}

bool ReadLink(const std::string& path, std::string& target) {
    std::vector<char> buffer(512);
    for (;;) {
        const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
        if (length < 0) {
            return false;
        }
        if (static_cast<size_t>(length) < buffer.size()) {
            target.assign(buffer.data(), static_cast<size_t>(length));
            return true;
        }
        if (buffer.size() >= 64 * 1024) {
            return false;
        }
        buffer.resize(buffer.size() * 4);
    }
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

bool StatusFromText(std::string_view text, ProcessUtils::procStatus& out) {
    ProcStatusFields fields;
    if (!ParseStatus(text, fields)) {
        return false;
    }
    ProcessUtils::procStatus status;
    status.uid = fields.uid;
    status.euid = fields.euid;
    status.suid = fields.suid;
    status.fsuid = fields.fsuid;
    status.gid = fields.gid;
    status.egid = fields.egid;
    status.sgid = fields.sgid;
    status.fsgid = fields.fsgid;
    status.ppid = fields.ppid;
    status.name.assign(fields.name.data(), fields.name.size());
    status.capPrm = fields.capPrm;
    status.capEff = fields.capEff;
    status.capBnd = fields.capBnd;
    out = std::move(status);
    return true;
}

bool ReadStat(long pid, ProcStat& stat) {
    return KeptStatFiles::Instance().Read(pid, stat);
}

}  // namespace

void ProcessUtils::SetProcRoot(const std::string& root) {
    ProcRoot() = root;
}

const std::string& ProcessUtils::GetProcRoot() {
    return ProcRoot();
}

std::string ProcessUtils::GetProcessFilePath(long pid, const char* entry) {
    return PidPath(pid, entry);
}

bool ProcessUtils::IsProcessAlive(unsigned int pid) {
    ProcStat stat;
    // A zombie has exited already; only its exit status is left to collect.
    return ReadStat(pid, stat) && stat.state != 'Z' && stat.state != 'X';
}

int ProcessUtils::GetProcessCmdline(int pid, std::string& out, int maxLength) {
    if (pid <= 0 || maxLength < 0) {
        return -1;
    }
    std::string raw;
    // One byte beyond the limit so that a trailing NUL does not count against it.
    if (!ReadHead(PidPath(pid, "cmdline"), raw, static_cast<size_t>(maxLength) + 1)) {
        return -1;
    }
    JoinCmdline(raw, static_cast<size_t>(maxLength), out);
    return 0;
}

int ProcessUtils::GetProcessExePath(unsigned int pid, std::string& out) {
    std::string target;
    if (pid == 0 || !ReadLink(PidPath(pid, "exe"), target)) {
        return -1;
    }
    out.swap(target);
    return 0;
}

int ProcessUtils::GetProcessStatInfo(int pid, int* ppid, long* startTime, std::string* name, char* state) {
    ProcStat stat;
    if (!ReadStat(pid, stat)) {
        return -1;
    }
    if (ppid != nullptr) {
        *ppid = stat.ppid;
    }
    if (startTime != nullptr) {
        *startTime = static_cast<long>(stat.startTime);
    }
    if (name != nullptr) {
        *name = stat.comm;
    }
    if (state != nullptr) {
        *state = stat.state;
    }
    return 0;
}

int ProcessUtils::GetProcessSocketFd(int pid, std::set<long>& inodes) {
    if (pid <= 0) {
        return -1;
    }
    const std::string fdDir = PidPath(pid, "fd");
    std::unique_ptr<DIR, DirCloser> dir(opendir(fdDir.c_str()));
    if (!dir) {
        return -1;
    }
    inodes.clear();
    while (const struct dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::string target;
        long inode = 0;
        // A descriptor closed meanwhile just has no link any more.
        if (ReadLink(fdDir + "/" + entry->d_name, target) && ParseSocketLink(target, inode)) {
            inodes.insert(inode);
        }
    }
    return 0;
}

int ProcessUtils::GetProcessStatusInfo(int pid, procStatus& out) {
    if (pid <= 0) {
        return -1;
    }
    // Read for the parent of every fork event: a stack buffer holds a usual status
    // (about 1.5 KiB); a longer one (thousands of supplementary groups) is read whole.
    const std::string path = PidPath(pid, "status");
    char buffer[16384];
    const ssize_t got = KeptStatusFile::Read(path, buffer, sizeof buffer);
    if (got < 0) {
        return -1;
    }
    const size_t size = static_cast<size_t>(got);
    if (size < sizeof buffer) {
        return StatusFromText(std::string_view(buffer, size), out) ? 0 : -1;
    }
    std::string text;
    if (FileUtils::ReadFile(path, text, kProcTextLimit) != 0) {
        return -1;
    }
    return StatusFromText(text, out) ? 0 : -1;
}

int ProcessUtils::GetProcessContext(int pid, ProcessContext& out) {
    if (pid <= 0) {
        return -1;
    }
    ProcessContext context;
    std::string text;
    // A cgroup file has a line per hierarchy (13 on cgroup v1), each a path of a few hundred bytes.
    if (!ReadHead(PidPath(pid, "cgroup"), text, 64 * 1024)) {
        return -1;
    }
    ParseCgroupContainer(text, context.containerRuntime, context.containerId);
    const auto inode = [](const std::string& link) {
        std::string target;
        unsigned long number = 0;
        return ReadLink(link, target) && ParseNamespaceLink(target, number) ? number : 0UL;
    };
    context.pidNamespace = inode(PidPath(pid, "ns/pid"));
    context.mountNamespace = inode(PidPath(pid, "ns/mnt"));
    // The host's are pid 1's; where those links are closed to the agent (some VMs and
    // sandboxes), the agent's own.
    unsigned long hostPid = inode(PidPath(1, "ns/pid"));
    unsigned long hostMount = inode(PidPath(1, "ns/mnt"));
    if (hostPid == 0 || hostMount == 0) {
        hostPid = inode("/proc/self/ns/pid");
        hostMount = inode("/proc/self/ns/mnt");
    }
    context.hostNamespaces = context.pidNamespace != 0 && context.pidNamespace == hostPid &&
                             context.mountNamespace != 0 && context.mountNamespace == hostMount;
    out = std::move(context);
    return 0;
}

int ProcessUtils::GetProcessUser(unsigned int uid, std::string& name) {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 4096);
    for (;;) {
        struct passwd entry {};
        struct passwd* found = nullptr;
        const int error = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < 1024 * 1024) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (error != 0 || found == nullptr || found->pw_name == nullptr) {
            return -1;
        }
        name = found->pw_name;
        return 0;
    }
}

int ProcessUtils::GetProcessSessionId(int pid, std::string& sessionId) {
    if (pid <= 0) {
        return -1;
    }
    if (FindLogindSession(pid, sessionId)) {
        return 0;
    }
    // Without logind: the nearest of the process and its ancestors that recorded a login.
    const std::set<long> logins = ReadUtmpLoginPids(kUtmpFile);
    long current = pid;
    for (int depth = 0; depth < kMaxSessionAncestors && current > 0 && !logins.empty(); ++depth) {
        if (logins.count(current) != 0) {
            sessionId = std::to_string(current);
            return 0;
        }
        ProcStat stat;
        if (!ReadStat(current, stat) || stat.ppid == current) {
            break;
        }
        current = stat.ppid;
    }
    return -1;
}

int ProcessUtils::GetSessionInfo(const std::string& sessionId, SessionInfo& info) {
    if (ReadLogindSession(sessionId, info) == 0) {
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    const long loginPid = std::strtol(sessionId.c_str(), &end, 10);
    if (sessionId.empty() || errno != 0 || *end != '\0') {
        return -1;
    }
    return FindUtmpSession(kUtmpFile, loginPid, info);
}

int ProcessUtils::GetProcessFileSha256(int pid, const std::string& exePath, std::string& hex, bool& fromLink,
                                       long limit) {
    // The link reaches the running image even when its file was replaced or deleted.
    if (pid > 0 && FileUtils::GetFileSha256(PidPath(pid, "exe"), hex, limit) == 0) {
        fromLink = true;
        return 0;
    }
    fromLink = false;
    if (exePath.empty()) {
        return -1;
    }
    return FileUtils::GetFileSha256(exePath, hex, limit) == 0 ? 0 : -1;
}

}  // namespace SDK
