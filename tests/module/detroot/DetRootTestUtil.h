#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "collect/ProcsMessage.h"
#include "sdk/ProcessUtils.h"
#include "support/FakeProcsFullTask.h"
#include "support/TempDir.h"

namespace DetRootTest {

using ProcInfoPtr = std::shared_ptr<Engine::ProcsMessage::procInfo>;

constexpr uint64_t kAllCaps = 0x1fffeffffffULL;

// A small file `name` in `dir` with the given owner and mode; returns its path.
inline std::string MakeFile(const TestSupport::TempDir& dir, const std::string& name, uid_t owner,
                            gid_t group, mode_t mode, const std::string& content = "#!/bin/sh\n") {
    const std::string file = dir.Write(name, content);
    if (chown(file.c_str(), owner, group) != 0 || chmod(file.c_str(), mode) != 0) {
        throw std::runtime_error("chown/chmod " + file);
    }
    return file;
}

// A fake /proc holding only the processes a test writes, so the task's reads of
// parent status and liveness see exactly what the test says.
class FakeProcRoot {
public:
    FakeProcRoot() { SDK::ProcessUtils::SetProcRoot(dir_.path()); }
    ~FakeProcRoot() { SDK::ProcessUtils::SetProcRoot("/proc"); }

    // A live process with the given filesystem user and effective capability set.
    void Write(int pid, unsigned int fsuid, uint64_t capEff, int ppid = 1) const {
        const std::string dir = dir_.path() + "/" + std::to_string(pid);
        std::filesystem::create_directories(dir);
        std::ofstream(dir + "/status")
            << "Name:\tproc" << pid << "\nPPid:\t" << ppid << "\nUid:\t" << fsuid << "\t" << fsuid << "\t"
            << fsuid << "\t" << fsuid << "\nGid:\t0\t0\t0\t0\n"
            << "CapPrm:\t" << std::hex << capEff << "\nCapEff:\t" << capEff << "\n";
        std::ofstream(dir + "/stat") << pid << " (proc" << pid << ") S " << ppid
                                     << " 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 100 0 0\n";
    }
    void Remove(int pid) const { std::filesystem::remove_all(dir_.path() + "/" + std::to_string(pid)); }

private:
    TestSupport::TempDir dir_{"detroot_proc"};
};

// A process record; identities 1000 and no capabilities unless changed.
inline ProcInfoPtr Proc(int pid, int ppid, const std::string& exePath, int64_t startTime) {
    auto record = TestSupport::MakeProc(pid, exePath, ppid);
    record->cmdline = exePath + " --run";
    record->startTime = startTime;
    record->startTimeSec = static_cast<int64_t>(time(nullptr)) - 10;
    return record;
}

// A copy of a record, for the "now" side of a before/after comparison.
inline ProcInfoPtr Copy(const ProcInfoPtr& record) {
    return std::make_shared<Engine::ProcsMessage::procInfo>(*record);
}

// The record of `child` as a fork event reports it under `parent`.
inline ProcInfoPtr ChildOf(const ProcInfoPtr& parent, int pid, const std::string& exePath,
                           int64_t startTime) {
    ProcInfoPtr record = Proc(pid, parent->pid, exePath, startTime);
    record->parentExePath = parent->exePath;
    record->parentStartTime = parent->startTime;
    return record;
}

}  // namespace DetRootTest
