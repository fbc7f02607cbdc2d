#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "collect/AbstractMessageReceiver.h"
#include "collect/ProcsFullTask.h"
#include "collect/ProcsMessage.h"
#include "feature_detroot/RootProcInfo.h"
#include "framework/Task.h"

namespace Poco {
class Logger;
}

namespace Engine {

// "detroot_full_task": follows fork and user-identity events, remembers which
// processes were born root and which descend from legitimate set-ID programs,
// and once per repeat interval looks through the full process table for
// processes whose privileges rose without such a cause ("procdet_0002").
// Everything runs on the task's own thread.
class ProcDetRootFullTask : public Framework::Task, public AbstractMessageReceiver {
public:
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;

    static constexpr const char* kTaskName = "detroot_full_task";
    static constexpr const char* kFeatureName = "proc_detroot_feature";

    ProcDetRootFullTask();

    // Lifecycle (ProcDetRootFullTask.cpp).
    int Init() override;
    int Run() override;
    void UnInit() override;
    void InitMonitorDirs();
    void AddWhiteList(const std::string& dir);
    void SetReportSuidProc(bool report) { reportSuidProc_ = report; }
    bool IsSetuidElf(const char* path) const;
    bool IsSetgidElf(const char* path) const;
    void CheckProcess();
    void UpdateRootProcInfo();
    // Drops the fork records of processes that are gone: not in `procs` (the
    // full check's table) and not alive, or whose pid the table shows for a
    // process started later.
    void DropGoneForkRecords(const ProcsFullTask::ProcsMap& procs);

    // Events (ProcDetRootEvents.cpp).
    void ProcsMessageAction(int pid, unsigned int flag, ProcInfoPtr record) override;
    void EventCheckFork(int pid, ProcInfoPtr record);
    bool IsSuidRoot(int pid, const std::string& path, int64_t startTime) const;
    bool IsBornRoot(ProcInfoPtr record) const;

    // Privilege-change checks (ProcDetRootChecks.cpp); 1 when an alarm was raised.
    int CheckSelfPrompt(ProcInfoPtr current, ProcInfoPtr parent, ProcInfoPtr old);
    int CheckChildPrompt(ProcInfoPtr child, ProcInfoPtr parent);

    // Alarm (ProcDetRootAlarm.cpp).
    void SendAlarm(ProcInfoPtr process, ProcInfoPtr parent, int type);
    void GenerateAlertHeader(int type, Json::Value& alert) const;

    // Read-only views for diagnostics and tests.
    const std::set<std::string>& GetWhiteList() const { return whiteList_; }
    const std::vector<std::string>& GetMonitorDirs() const { return monitorDirs_; }
    const std::set<std::string>& GetIgnoredProcesses() const { return ignoredProcesses_; }
    bool GetReportSuidProc() const { return reportSuidProc_; }
    size_t GetRootRecordCount() const { return rootProcs_.size(); }
    size_t GetForkRecordCount() const { return forkedProcs_.size(); }

protected:
    // Reference counted like every host task: release() instead of delete.
    ~ProcDetRootFullTask() override;

private:
    bool IsCancelling();
    bool IsSuidDescendant(int pid, int64_t startTime) const;

    std::vector<std::string> monitorDirs_;
    std::set<std::string> whiteList_;
    std::map<int, ProcInfoPtr> forkedProcs_;
    std::map<int, RootProcInfo> rootProcs_;
    Poco::Logger* logger_ = nullptr;
    bool reportSuidProc_ = false;
    std::set<std::string> ignoredProcesses_;
    std::set<std::string> alarmedKeys_;
};

}  // namespace Engine
