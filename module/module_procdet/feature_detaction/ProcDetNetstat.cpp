#include "feature_detaction/ProcDetNetstat.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <string>

#include "ProcDetLog.h"
#include "collect/NetProcsFullTask.h"
#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcParsers.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetNetstat";

}  // namespace

namespace {

constexpr const char* kPaceTaskName = "detaction_full_task";
constexpr int kTcpEstablished = 1;
constexpr int kTcpSynSent = 2;
// A pid whose previous-cycle set holds more than this many peers can be flagged.
constexpr unsigned long kMinPrevPeers = 9;

// Outgoing or live connections to remote SSH and SMB services.
bool IsWatchedConnection(int state, unsigned int remotePort) {
    if (state != kTcpEstablished && state != kTcpSynSent) {
        return false;
    }
    return remotePort == 22 || remotePort == 139 || remotePort == 445;
}

}  // namespace

ProcDetNetstat::ProcDetNetstat() : logger(GetProcDetLogger()) {
    std::string installPath;
    SDK::PathUtils::GetInstallationPath(installPath);
    libPath = installPath + "conf/pupbip.dat";
}

ProcDetNetstat::~ProcDetNetstat() = default;

std::string ProcDetNetstat::GetName() {
    return "netstat";
}

Poco::Logger* ProcDetNetstat::Logger() {
    // Logging may be set up after the detector was made.
    if (logger == nullptr) {
        logger = GetProcDetLogger();
    }
    return logger;
}

bool ProcDetNetstat::Prepare() {
    blackInodes.clear();
    watchedInodes.clear();
    curPeers.clear();

    NetProcsFullTask::NetMap connections;
    Framework::Engine* engine = Framework::Engine::Instance();
    if (engine != nullptr) {
        auto* netTask = dynamic_cast<NetProcsFullTask*>(engine->FindTask("netproc_full_task"));
        if (netTask != nullptr) {
            netTask->GetNetCacheMap(connections);
        }
    }

    for (const auto& entry : connections) {
        PROCDET_PACE_CPU(kPaceTaskName);
        const NetProcsMessage::netProcInfo* conn = entry.second.get();
        if (conn == nullptr) {
            continue;
        }
        if (IsBlackIp(static_cast<long>(conn->remoteAddr))) {
            PROCDET_DEBUG(Logger(), "netstat bip inode %ld, %u, %u, %s", conn->inode, conn->remotePort,
                          conn->remoteAddr, conn->text);
            blackInodes.emplace(conn->inode, conn->remoteAddr);
        }
        if (IsWatchedConnection(conn->state, conn->remotePort)) {
            // Only the port is kept here, so a pid's set holds at most three values.
            watchedInodes.emplace(conn->inode, conn->remotePort);
        }
    }
    return true;
}

bool ProcDetNetstat::Prepare2() {
    blackInodes.clear();
    watchedInodes.clear();
    curPeers.clear();

    const std::string tcpPath = SDK::ProcessUtils::GetProcRoot() + "/net/tcp";
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(tcpPath.c_str(), "r"), &std::fclose);
    if (!file) {
        const int error = errno;
        PROCDET_ERROR(Logger(), "Open (/proc/net/tcp) failed, errno(%d).", error);
        return false;
    }
    char* buffer = nullptr;
    size_t capacity = 0;
    // Bounded by the kernel: fixed-width lines of 150 bytes, one per IPv4 TCP socket; the file is
    // read line by line, so memory stays one line whatever the number of sockets.
    // The first line is the column header.
    if (getline(&buffer, &capacity, file.get()) < 0) {
        std::free(buffer);
        return false;
    }
    while (getline(&buffer, &capacity, file.get()) >= 0) {
        NoteProcNetTcpLine(buffer);
    }
    std::free(buffer);
    return true;
}

void ProcDetNetstat::NoteProcNetTcpLine(const std::string& line) {
    SDK::NetTcpLineFields conn;
    // Lines of fewer than 11 fields are not connections the kernel wrote.
    if (!SDK::ParseNetTcpLine(line, false, conn) || conn.fieldCount < 11) {
        return;
    }
    if (IsBlackIp(static_cast<long>(conn.remote[0]))) {
        blackInodes.emplace(conn.inode, conn.remote[0]);
    }
    if (IsWatchedConnection(conn.state, conn.remotePort)) {
        watchedInodes.emplace(conn.inode, conn.remote[0]);
    }
}

bool ProcDetNetstat::CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                                  StrDetails& /*strDetails*/) {
    if (!proc) {
        return true;
    }
    // With no blacklisted and no watched connection on the host, no socket of any
    // process can match: skip listing its descriptors, the costliest read of a cycle.
    if (blackInodes.empty() && watchedInodes.empty()) {
        return true;
    }
    const int pid = proc->pid;
    std::set<long> inodes;
    if (SDK::ProcessUtils::GetProcessSocketFd(pid, inodes) != 0) {
        return true;
    }

    unsigned long repeatCount = 0;
    const std::set<unsigned int>* prevSet = nullptr;
    const auto prev = prevPeers.find(pid);
    if (prev != prevPeers.end()) {
        prevSet = &prev->second;
    }

    auto curPidEntry = curPeers.end();
    for (const long inode : inodes) {
        PROCDET_PACE_CPU(kPaceTaskName);
        const auto black = blackInodes.find(inode);
        if (black != blackInodes.end()) {
            flags |= CONNECT_BIP;
            // Inodes come in ascending order: the lowest blacklisted one is reported.
            numDetails.emplace(kDetailBlackIp, static_cast<long>(black->second));
        }
        if (!UpdateMaps(pid, inode, curPidEntry, prevSet, repeatCount)) {
            break;
        }
    }

    if (repeatCount != 0 && prevSet != nullptr) {
        const unsigned long peers = prevSet->size();
        if (peers > kMinPrevPeers && peers * 6 / 10 <= repeatCount) {
            flags |= LOGIN_OTHERS;
            numDetails.emplace(kDetailConnSum, static_cast<long>(peers));
        }
    }
    return true;
}

bool ProcDetNetstat::UpdateMaps(int pid, long inode, PeerMap::iterator& curPidEntry,
                                const std::set<unsigned int>* prevSet, unsigned long& repeatCount) {
    const auto watched = watchedInodes.find(inode);
    if (watched == watchedInodes.end()) {
        return true;
    }
    const unsigned int value = watched->second;
    try {
        if (curPidEntry == curPeers.end() || curPidEntry->first != pid) {
            curPidEntry = curPeers.try_emplace(pid).first;
        }
        curPidEntry->second.insert(value);
    } catch (const std::bad_alloc&) {
        return false;
    }
    // Counted per socket: two sockets to the same peer count twice.
    if (prevSet != nullptr && prevSet->count(value) != 0) {
        ++repeatCount;
    }
    return true;
}

void ProcDetNetstat::Finish() {
    prevPeers = curPeers;
}

}  // namespace Engine
