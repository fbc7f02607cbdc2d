#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "collect/AbstractMessageReceiver.h"
#include "collect/ProcsFullTask.h"
#include "collect/ProcsMessage.h"
#include "feature_detroot/ProcDetRootAlarm.h"
#include "feature_detroot/ProcDetRootChecker.h"
#include "feature_detroot/ProcDetRootRecords.h"
#include "framework/Task.h"

namespace Poco {
class Logger;
}

namespace Engine {

// "detroot_full_task": follows fork and user-identity events into its records
// (ProcDetRootRecords), and once per repeat interval looks through the full process
// table for processes whose privileges rose without a legitimate cause
// (ProcDetRootChecker), each reported once (ProcDetRootAlarm, "procdet_0002").
// Everything runs on the task's own thread.
class ProcDetRootFullTask : public Framework::Task, public AbstractMessageReceiver {
public:
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;

    static constexpr const char* kTaskName = "detroot_full_task";
    static constexpr const char* kFeatureName = "proc_detroot_feature";

    ProcDetRootFullTask();

    // Lifecycle and the full check.
    int Init() override;
    int Run() override;
    void UnInit() override;
    void InitMonitorDirs();
    void AddWhiteList(const std::string& dir);
    void SetReportSuidProc(bool report) { checker_.SetReportSuidProc(report); }
    bool IsSetuidElf(const char* path) const { return ProcDetRootChecker::IsSetuidElf(path); }
    bool IsSetgidElf(const char* path) const { return ProcDetRootChecker::IsSetgidElf(path); }
    void CheckProcess();
    void UpdateRootProcInfo() { records_.DropDeadRootRecords(); }
    void DropGoneForkRecords(const ProcsFullTask::ProcsMap& procs) { records_.DropGoneForkRecords(procs); }

    // Events.
    void ProcsMessageAction(int pid, unsigned int flag, ProcInfoPtr record) override;
    void EventCheckFork(int pid, ProcInfoPtr record);
    bool IsSuidRoot(int pid, const std::string& path, int64_t startTime) const {
        return checker_.IsSuidRoot(pid, path, startTime);
    }
    bool IsBornRoot(ProcInfoPtr record) const {
        return record && records_.IsBornRoot(record->pid, record->startTime);
    }

    // Privilege-change checks; 1 when an alarm was raised.
    int CheckSelfPrompt(ProcInfoPtr current, ProcInfoPtr parent, ProcInfoPtr old) {
        return checker_.CheckSelfPrompt(current, parent, old);
    }
    int CheckChildPrompt(ProcInfoPtr child, ProcInfoPtr parent) {
        return checker_.CheckChildPrompt(child, parent);
    }

    // Alarm.
    void SendAlarm(ProcInfoPtr process, ProcInfoPtr parent, int type);
    void GenerateAlertHeader(int type, Json::Value& alert) const {
        ProcDetRootAlarm::GenerateAlertHeader(type, alert);
    }

    // Read-only views for diagnostics and tests.
    const std::set<std::string>& GetWhiteList() const { return whiteList_; }
    const std::vector<std::string>& GetMonitorDirs() const { return monitorDirs_; }
    const std::set<std::string>& GetIgnoredProcesses() const { return ignoredProcesses_; }
    bool GetReportSuidProc() const { return checker_.GetReportSuidProc(); }
    size_t GetRootRecordCount() const { return records_.RootCount(); }
    size_t GetForkRecordCount() const { return records_.ForkCount(); }

protected:
    // Reference counted like every host task: release() instead of delete.
    ~ProcDetRootFullTask() override;

private:
    bool IsCancelling();
    void SetLogger(Poco::Logger* logger);

    std::vector<std::string> monitorDirs_;
    std::set<std::string> whiteList_;
    std::set<std::string> ignoredProcesses_;
    ProcDetRootRecords records_;
    ProcDetRootChecker checker_;  // reads whiteList_ and records_, declared before it
    ProcDetRootAlarm alarm_;
    Poco::Logger* logger_ = nullptr;
};

}  // namespace Engine
