#pragma once

#include <Poco/Logger.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "feature_detaction/ProcCheckInfo.h"
#include "feature_detaction/ProcDetBase.h"
#include "framework/Task.h"

namespace Engine {

// A registered detector and its schedule.
struct DetectorEntry {
    ProcDetBase* detector = nullptr;  // owned by the manager
    int interval = 0;                 // elapsed units between two runs
    int countdown = 0;                // units left until the next run
};

// Runs the detectors over every process of the host once per cycle, keeps the
// findings per pid and tells the behaviour-detection task when they change.
// Used only on the task's thread, hence no lock.
class ProcDetManager {
public:
    using ResultMap = std::map<int, ProcCheckInfo>;
    using DetectorList = std::vector<ProcDetBase*>;

    ProcDetManager() = default;
    ~ProcDetManager();
    ProcDetManager(const ProcDetManager&) = delete;
    ProcDetManager& operator=(const ProcDetManager&) = delete;

    // `task` receives the notifications when it is a ProcDetActionFullTask;
    // `notifyContext` is handed back with them.
    void Init(Framework::Task* task, void* notifyContext);
    // Takes ownership of `detector` (null is ignored); it runs every `interval` units.
    void AddDetector(ProcDetBase* detector, int interval);

    // Counts the detectors down by `elapsed` and prepares the ones that are due.
    void PrepareAllDetector(int elapsed, DetectorList& prepared);
    // One cycle over the process table; `task` is polled for a stop request.
    void Check(int elapsed, const Framework::Task* task);
    // Runs `detectors` over one process; a detector that quits is removed from the list.
    void CheckWithDetectors(ProcRecord proc, DetectorList& detectors, NumDetails& numDetails,
                            StrDetails& strDetails, unsigned int& flags, const Framework::Task* task);

    // Stores a live process's findings; `changed` becomes true when its flags differ
    // from the ones recorded before.
    void RecordCheckResult(ProcRecord proc, long now, int flags, const NumDetails& numDetails,
                           const StrDetails& strDetails, bool& changed);
    // Drops the results this cycle did not renew and notifies the task when anything changed.
    void CleanAndNotify(long now, bool& changed);
    // Deletes the detectors and forgets the results; the ignore set stays.
    void Clean();
    void GetProcInfoMap(ResultMap& out) const;
    void SetIgnoreFilepathSet(const std::set<std::string>& paths);
    const std::set<std::string>& GetIgnoreFilepathSet() const { return ignoreFilepaths_; }
    size_t GetDetectorCount() const { return detectors_.size(); }

    // Names the flag bits: "PROC_TMP, HIGHCPU, " for 0x021, "CLEAR" for 0.
    static void MakeDesc(unsigned int flags, std::string& out);

private:
    static bool IsStopping(const Framework::Task* task);

    Framework::Task* task_ = nullptr;
    void* notifyContext_ = nullptr;
    std::set<std::string> ignoreFilepaths_;
    std::vector<DetectorEntry> detectors_;
    ResultMap results_;
    Poco::Logger* logger_ = nullptr;
};

}  // namespace Engine
