#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "collect/ProcsMessage.h"
#include "feature_detroot/ProcDetRootRecords.h"

namespace Poco {
class Logger;
}

namespace Engine {

// Decides whether a process's privileges rose without a legitimate cause: by itself
// since its fork record (CheckSelfPrompt), or as a fresh privileged child of a plain
// parent (CheckChildPrompt). Legitimate causes are the white-listed set-ID programs
// and their descendants, capabilities held at fork time, and a root birth. A rise
// is handed to `raise` with its alarm type; both checks return 1 then, else 0.
class ProcDetRootChecker {
public:
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;
    using RaiseAlarm = std::function<void(ProcInfoPtr process, ProcInfoPtr parent, int type)>;

    ProcDetRootChecker(const std::set<std::string>& whiteList, const ProcDetRootRecords& records,
                       RaiseAlarm raise)
        : whiteList_(whiteList), records_(records), raise_(std::move(raise)) {}

    void SetLogger(Poco::Logger* logger) { logger_ = logger; }
    // Whether root children that run a set-ID program are reported too.
    void SetReportSuidProc(bool report) { reportSuidProc_ = report; }
    bool GetReportSuidProc() const { return reportSuidProc_; }

    int CheckSelfPrompt(ProcInfoPtr current, ProcInfoPtr parent, ProcInfoPtr old);
    int CheckChildPrompt(ProcInfoPtr child, ProcInfoPtr parent);

    // A white-listed program, or a descendant of one recorded at its birth.
    bool IsSuidRoot(int pid, const std::string& path, int64_t startTime) const;
    // A root-owned program with the set-user-ID (set-group-ID) bit that anyone may run.
    static bool IsSetuidElf(const char* path);
    static bool IsSetgidElf(const char* path);

private:
    const std::set<std::string>& whiteList_;
    const ProcDetRootRecords& records_;
    RaiseAlarm raise_;
    Poco::Logger* logger_ = nullptr;
    bool reportSuidProc_ = false;
};

}  // namespace Engine
