#include "feature_detroot/ProcDetRootFullTask.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <iterator>
#include <new>

#include "ProcDetLog.h"
#include "collect/ProcsFullTask.h"
#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "feature_detroot/ProcDetRootPolicy.h"
#include "framework/Engine.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detroot/ProcDetRootFullTask";

}  // namespace

namespace {

constexpr int kMessageBatch = 1024;
constexpr long kLoopSleepMs = 500;
constexpr unsigned long kPathOutputLimit = 4096;
constexpr unsigned int kUnknownId = 0xFFFFFFFFu;
constexpr const char* kEventTaskName = "procs_real_task";
// Fork and user-identity events.
constexpr unsigned int kEventFlags[] = {PROCS_EVENT_FORK, PROCS_EVENT_UID};

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

ProcDetRootFullTask::ProcDetRootFullTask()
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::TASK_TYPE_RESIDENT, 4096),
      logger_(GetProcDetLogger()) {}

ProcDetRootFullTask::~ProcDetRootFullTask() = default;

int ProcDetRootFullTask::Init() {
    logger_ = GetProcDetLogger();

    for (unsigned int flag : kEventFlags) {
        auto* regist = new (std::nothrow) ProcsRegistMessage(flag, this);
        if (regist == nullptr) {
            PROCDET_ERROR(logger_, "detroot subscription %u not sent: out of memory", flag);
            continue;
        }
        SendDirectMsg(kEventTaskName, regist);
    }

    auto* taskPolicy = dynamic_cast<ProcDetRootFullTaskPolicy*>(GetTaskPolicy());
    if (taskPolicy == nullptr) {
        Framework::Task::Init();
        return 0;
    }
    reportSuidProc_ = taskPolicy->GetNosuidParent();

    auto* featurePolicy = dynamic_cast<ProcDetRootPolicy*>(GetFeaturePolicy());
    if (featurePolicy == nullptr) {
        Framework::Task::Init();
        return 0;
    }
    if (&featurePolicy->GetIgnoredProcesses() != &ignoredProcesses_) {
        ignoredProcesses_ = featurePolicy->GetIgnoredProcesses();
    }

    InitMonitorDirs();
    Framework::Task::Init();
    return 0;
}

void ProcDetRootFullTask::InitMonitorDirs() {
    monitorDirs_.clear();
    std::string output;
    SDK::ExecuteCmdUtils::ExecuteCmd("echo $PATH", output, kPathOutputLimit);
    SDK::StrUtils::EasySplit(output, monitorDirs_, ":");
    // Library directories hold helper programs that are set-ID by design.
    monitorDirs_.push_back("/usr/lib");
    monitorDirs_.push_back("/usr/lib64");
    for (std::string& dir : monitorDirs_) {
        SDK::StrUtils::Trim(dir);
        AddWhiteList(dir);
    }
    for (const std::string& path : ignoredProcesses_) {
        whiteList_.insert(path);
        PROCDET_DEBUG(logger_, "detroot addwhiteList %s", path);
    }
}

void ProcDetRootFullTask::AddWhiteList(const std::string& dir) {
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr) {
        return;
    }
    while (const struct dirent* entry = readdir(stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string path = dir + "/" + name;
        if (IsSetuidElf(path.c_str()) || IsSetgidElf(path.c_str())) {
            whiteList_.insert(path);
            PROCDET_DEBUG(logger_, "detroot addwhiteList %s", path);
        }
    }
    closedir(stream);
}

bool ProcDetRootFullTask::IsSetuidElf(const char* path) const {
    return IsRootSetIdProgram(path, S_ISUID, false);
}

bool ProcDetRootFullTask::IsSetgidElf(const char* path) const {
    return IsRootSetIdProgram(path, S_ISGID, true);
}

bool ProcDetRootFullTask::IsCancelling() {
    return isCancelled() || state() == TASK_CANCELLING;
}

int ProcDetRootFullTask::Run() {
    long lastCheck = SDK::TimeUtils::GetCurrentTimestampS();
    const Framework::TaskCondition::Record condition = GetTaskCondition().GetTaskCondition();
    const long repeatInterval = static_cast<long>(condition.repeatInterval);
    PROCDET_DEBUG(logger_, "detroot1 inTime %ld, repeatInterval %ld", static_cast<long>(condition.startTime),
                  repeatInterval);
    while (!IsCancelling()) {
        // Events are handled every pass so that fork records are taken while they are fresh.
        BulkConsumeMsg(kMessageBatch);
        PROCDET_PACE_CPU(kTaskName);
        sleep(kLoopSleepMs);
        const long now = SDK::TimeUtils::GetCurrentTimestampS();
        if (std::labs(now - lastCheck) < repeatInterval) {
            continue;
        }
        CheckProcess();
        PROCDET_DEBUG(logger_, "detroot once check end %ld", SDK::TimeUtils::GetCurrentTimestampS() - now);
        lastCheck = now;
        if (IsCancelling()) {
            return 0;
        }
    }
    return 0;
}

void ProcDetRootFullTask::UpdateRootProcInfo() {
    for (auto it = rootProcs_.begin(); it != rootProcs_.end();) {
        if (SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(it->first))) {
            ++it;
        } else {
            it = rootProcs_.erase(it);
        }
    }
}

bool ProcDetRootFullTask::IsSuidDescendant(int pid, int64_t startTime) const {
    const auto it = rootProcs_.find(pid);
    return it != rootProcs_.end() && it->second.startTime == startTime && it->second.suidDescendant;
}

void ProcDetRootFullTask::DropGoneForkRecords(const ProcsFullTask::ProcsMap& procs) {
    for (auto it = forkedProcs_.begin(); it != forkedProcs_.end();) {
        const auto live = procs.find(it->first);
        bool gone;
        if (live != procs.end() && live->second) {
            // A later start time is a new process on the pid. An earlier one is a
            // table taken before this record's fork event: the record stays.
            gone = live->second->startTime > it->second->startTime;
        } else {
            gone = !SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(it->first));
        }
        it = gone ? forkedProcs_.erase(it) : std::next(it);
    }
}

void ProcDetRootFullTask::CheckProcess() {
    UpdateRootProcInfo();

    // The processes compared with their fork records: the table reads their
    // capabilities and command lines, and their parents', as they are now.
    std::vector<int> compared;
    compared.reserve(forkedProcs_.size());
    for (const auto& entry : forkedProcs_) {
        compared.push_back(entry.first);
    }
    ProcsFullTask::ProcsMap procs;
    Framework::Engine* engine = Framework::Engine::Instance();
    auto* fullTask =
        dynamic_cast<ProcsFullTask*>(engine != nullptr ? engine->FindTask("procs_full_task") : nullptr);
    if (fullTask != nullptr) {
        fullTask->GetProcsMapFresh(procs, compared);
    }
    // Memory is then bounded by the live processes, not by every pid ever forked:
    // a reused pid without a record of its own behaves like a pid never used.
    DropGoneForkRecords(procs);
    if (procs.empty() || IsCancelling()) {
        return;
    }

    for (const auto& [pid, record] : procs) {
        PROCDET_PACE_CPU(kTaskName);
        if (IsCancelling()) {
            return;
        }
        if (!record || whiteList_.count(record->exePath) != 0 || IsSuidDescendant(pid, record->startTime)) {
            continue;
        }
        const auto forked = forkedProcs_.find(pid);
        const auto parentIt = procs.find(record->ppid);
        if (forked == forkedProcs_.end() || !forked->second || parentIt == procs.end() || !parentIt->second) {
            continue;
        }
        const ProcInfoPtr& parent = parentIt->second;
        // A parent we could not read tells nothing about what its child may be.
        if (parent->name.empty() || parent->euid == kUnknownId || parent->egid == kUnknownId) {
            continue;
        }
        if (CheckSelfPrompt(record, parent, forked->second) == 0) {
            CheckChildPrompt(record, parent);
        }
    }
}

void ProcDetRootFullTask::UnInit() {
    whiteList_.clear();
    // A subscription holds a reference to this task: without these the producer would
    // keep the task alive past its module, and release it into unloaded code.
    for (unsigned int flag : kEventFlags) {
        auto* unregist = new (std::nothrow) ProcsUnRegistMessage(flag, this);
        if (unregist == nullptr) {
            PROCDET_ERROR(logger_, "detroot unsubscription %u not sent: out of memory", flag);
            continue;
        }
        SendDirectMsg(kEventTaskName, unregist);
    }
    Framework::Task::UnInit();
}

}  // namespace Engine
