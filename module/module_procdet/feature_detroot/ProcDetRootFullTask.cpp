#include "feature_detroot/ProcDetRootFullTask.h"

#include <dirent.h>

#include <cstdlib>
#include <new>

#include "ProcDetLog.h"
#include "ProcDetMetrics.h"
#include "collect/ProcsFullTask.h"
#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "feature_detroot/ProcDetRootPolicy.h"
#include "framework/DataMessage.h"
#include "framework/Engine.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detroot/ProcDetRootFullTask";

constexpr int kMessageBatch = 1024;
constexpr long kLoopSleepMs = 500;
constexpr unsigned long kPathOutputLimit = 4096;
constexpr unsigned int kUnknownId = 0xFFFFFFFFu;
constexpr const char* kEventTaskName = "procs_real_task";
// Fork and user-identity events.
constexpr unsigned int kEventFlags[] = {PROCS_EVENT_FORK, PROCS_EVENT_UID};

}  // namespace

ProcDetRootFullTask::ProcDetRootFullTask()
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::TASK_TYPE_RESIDENT, 4096),
      checker_(whiteList_, records_, [this](ProcInfoPtr process, ProcInfoPtr parent, int type) {
          SendAlarm(process, parent, type);
      }) {
    SetLogger(GetProcDetLogger());
}

ProcDetRootFullTask::~ProcDetRootFullTask() = default;

void ProcDetRootFullTask::SetLogger(Poco::Logger* logger) {
    logger_ = logger;
    checker_.SetLogger(logger);
    alarm_.SetLogger(logger);
}

int ProcDetRootFullTask::Init() {
    SetLogger(GetProcDetLogger());

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
    checker_.SetReportSuidProc(taskPolicy->GetNosuidParent());

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

void ProcDetRootFullTask::CheckProcess() {
    UpdateRootProcInfo();

    // The processes compared with their fork records: the table reads their
    // capabilities and command lines, and their parents', as they are now.
    const std::vector<int> compared = records_.ForkedPids();
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
        if (!record || whiteList_.count(record->exePath) != 0 ||
            records_.IsSuidDescendant(pid, record->startTime)) {
            continue;
        }
        const ProcInfoPtr forked = records_.FindFork(pid);
        const auto parentIt = procs.find(record->ppid);
        if (!forked || parentIt == procs.end() || !parentIt->second) {
            continue;
        }
        const ProcInfoPtr& parent = parentIt->second;
        // A parent we could not read tells nothing about what its child may be.
        if (parent->name.empty() || parent->euid == kUnknownId || parent->egid == kUnknownId) {
            continue;
        }
        if (CheckSelfPrompt(record, parent, forked) == 0) {
            CheckChildPrompt(record, parent);
        }
    }
}

void ProcDetRootFullTask::ProcsMessageAction(int pid, unsigned int flag, ProcInfoPtr record) {
    if (!record) {
        return;
    }
    ProcDetMetrics::CountProcessEvent(flag == PROCS_EVENT_UID    ? "identity"
                                      : flag == PROCS_EVENT_FORK ? "fork"
                                                                 : "other");
    PROCDET_PACE_CPU(kTaskName);
    if (flag == PROCS_EVENT_UID) {
        // Only a change to non-root real and effective users is a drop.
        if (record->uid == 0 || record->euid == 0) {
            return;
        }
        PROCDET_DEBUG(logger_, "recvdetroot uid pid %d, uid %u", pid, record->uid);
        records_.DropIdentity(pid, record->startTime);
    } else if (flag == PROCS_EVENT_FORK) {
        EventCheckFork(pid, record);
    }
}

void ProcDetRootFullTask::EventCheckFork(int pid, ProcInfoPtr record) {
    if (!record) {
        return;
    }
    // Read now, not at fork time: a parent that is gone leaves the status unknown,
    // which counts as a non-root parent without capabilities.
    SDK::ProcessUtils::procStatus parentStatus;
    SDK::ProcessUtils::GetProcessStatusInfo(record->ppid, parentStatus);
    const bool parentHasCaps = parentStatus.capEff != 0;
    const bool parentIsRoot = parentStatus.fsuid == 0;

    if (parentHasCaps || parentIsRoot) {
        const bool suidRoot = IsSuidRoot(record->ppid, record->parentExePath, record->parentStartTime);
        if (suidRoot) {
            PROCDET_DEBUG(logger_, "add suid process %d", pid);
        }
        records_.AddRootBirth(pid, record->startTime, suidRoot);
        if (parentHasCaps) {
            records_.MarkParent(record->ppid, record->parentStartTime);
        }
        // Children of root are root by birth; there is no rise to compare against.
        if (parentIsRoot) {
            return;
        }
    }
    records_.AddFork(pid, record);
}

void ProcDetRootFullTask::SendAlarm(ProcInfoPtr process, ProcInfoPtr parent, int type) {
    std::string text;
    if (!alarm_.Build(process, parent, type, text)) {
        return;
    }
    PROCDET_INFO(logger_, "detroot alarm:%s", text);
    auto* message = new (std::nothrow) Framework::DataMessage("2", text);
    if (message == nullptr) {
        PROCDET_ERROR(logger_, "detroot alarm not sent: out of memory");
        return;
    }
    SendDirectMsg("data_comm_report_task", message);
    ProcDetMetrics::CountAlertSent("procdet_0002");
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
