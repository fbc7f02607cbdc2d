#include "feature_detroot/ProcDetRootChecker.h"

#include <sys/stat.h>

#include <ctime>

#include "ProcDetLog.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the task, whichever of its classes runs.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detroot/ProcDetRootFullTask";
constexpr const char* kTaskName = "detroot_full_task";

// A root child older than this was not spawned by the parent's current identity.
constexpr long kFreshChildSeconds = 300;

enum DetRootAlarmType : int {
    ALARM_SELF_EGID = 1,
    ALARM_SELF_EUID = 2,
    ALARM_CHILD_SUID = 3,
    ALARM_CHILD_SGID = 4,
    ALARM_SELF_CAP_SETUID = 5,
    ALARM_SELF_CAP_SETGID = 6,
};

// A root-owned program with the given set-ID bit that anyone may run.
bool IsRootSetIdProgram(const char* path, mode_t setIdBit, bool byGroup) {
    struct stat info {};
    if (path == nullptr || stat(path, &info) != 0) {
        return false;
    }
    const bool rootOwned = byGroup ? info.st_gid == 0 : info.st_uid == 0;
    return rootOwned && (info.st_mode & setIdBit) != 0 && (info.st_mode & S_IXOTH) != 0;
}

}  // namespace

bool ProcDetRootChecker::IsSetuidElf(const char* path) {
    return IsRootSetIdProgram(path, S_ISUID, false);
}

bool ProcDetRootChecker::IsSetgidElf(const char* path) {
    return IsRootSetIdProgram(path, S_ISGID, true);
}

bool ProcDetRootChecker::IsSuidRoot(int pid, const std::string& path, int64_t startTime) const {
    if (path.empty()) {
        return false;
    }
    if (whiteList_.count(path) != 0) {
        return true;
    }
    if (startTime == 0) {
        return false;
    }
    return records_.IsSuidDescendant(pid, startTime);
}

int ProcDetRootChecker::CheckSelfPrompt(ProcInfoPtr current, ProcInfoPtr parent, ProcInfoPtr old) {
    PROCDET_PACE_CPU(kTaskName);
    if (!current || !parent || !old) {
        return 0;
    }
    if (current->startTime != old->startTime) {
        PROCDET_DEBUG(logger_, "%s and %s not the same process. pid: %d, timenew %ld,  %ld", current->exePath,
                      old->exePath, current->pid, static_cast<long>(current->startTime),
                      static_cast<long>(old->startTime));
        return 0;
    }
    if (old->capSetuid == 0 && current->capSetuid != 0) {
        raise_(current, parent, ALARM_SELF_CAP_SETUID);
        PROCDET_INFO(logger_, "self prompt:cap_setuid changed, pid:%d, path:%s", current->pid,
                     current->exePath);
        return 1;
    }
    if (old->capSetgid == 0 && current->capSetgid != 0) {
        raise_(current, parent, ALARM_SELF_CAP_SETGID);
        PROCDET_INFO(logger_, "self prompt:cap_setgid changed, pid:%d, path:%s", current->pid,
                     current->exePath);
        return 1;
    }
    // A rise to root is legitimate only through a root set-ID program.
    if (old->euid != 0 && current->euid == 0 && old->capSetuid == 0 &&
        !IsSetuidElf(current->exePath.c_str())) {
        raise_(current, parent, ALARM_SELF_EUID);
        PROCDET_INFO(logger_, "self prompt:eid changed, pid:%d, path:%s", current->pid, current->exePath);
        return 1;
    }
    if (old->egid != 0 && current->egid == 0 && old->capSetgid == 0 &&
        !IsSetgidElf(current->exePath.c_str())) {
        raise_(current, parent, ALARM_SELF_EGID);
        PROCDET_INFO(logger_, "self prompt:eid changed, egid:%d, path:%s", current->pid, current->exePath);
        return 1;
    }
    return 0;
}

int ProcDetRootChecker::CheckChildPrompt(ProcInfoPtr child, ProcInfoPtr parent) {
    PROCDET_PACE_CPU(kTaskName);
    if (!child || !parent) {
        return 0;
    }
    if (parent->pid == 1 || whiteList_.count(parent->exePath) != 0) {
        return 0;
    }
    if (IsSuidRoot(parent->pid, parent->exePath, parent->startTime)) {
        PROCDET_DEBUG(logger_, "ignore process %d spawn by set uid process", child->pid);
        return 0;
    }
    // A child older than its parent means the parent pid was reused after the child started.
    if (child->startTimeSec < parent->startTimeSec) {
        return 0;
    }
    if (static_cast<long>(time(nullptr)) - static_cast<long>(child->startTimeSec) > kFreshChildSeconds) {
        return 0;
    }
    if (records_.IsBornRoot(parent->pid, parent->startTime)) {
        PROCDET_DEBUG(logger_, "parent proc [%d] %s born in root privilege", parent->pid, parent->exePath);
        return 0;
    }
    if (child->euid == 0 && parent->capSetuid == 0 && parent->euid != 0) {
        if (!reportSuidProc_ && IsSetuidElf(child->exePath.c_str())) {
            return 0;
        }
        raise_(child, parent, ALARM_CHILD_SUID);
        PROCDET_INFO(logger_, "suid prompt. parent process path:%s process path:%s pid:%d ppid:%d",
                     parent->exePath, child->exePath, child->pid, parent->pid);
        return 1;
    }
    if (child->egid != 0 || parent->capSetgid != 0 || parent->egid == 0) {
        return 0;
    }
    if (!reportSuidProc_ && IsSetgidElf(child->exePath.c_str())) {
        return 0;
    }
    raise_(child, parent, ALARM_CHILD_SGID);
    PROCDET_INFO(logger_, "sgid prompt. parent process path:%s process path:%s pid:%d ppid:%d",
                 parent->exePath, child->exePath, child->pid, parent->pid);
    return 1;
}

}  // namespace Engine
