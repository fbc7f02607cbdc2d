#pragma once

#include <Poco/Logger.h>
#include <json/json.h>

#include <map>
#include <set>
#include <string>

#include "feature_detaction/ProcCheckInfo.h"
#include "feature_detaction/ProcDetActionFullTaskPolicy.h"
#include "feature_detaction/ProcDetManager.h"
#include "framework/Task.h"

namespace Engine {

class DetectorProc;
class ProcDetCpu;
class ProcDetNetstat;
class ProcDetStrings;

// "detaction_full_task": once per scheduled cycle runs the detectors over every
// process and reports the processes whose weighted findings reach the report score.
class ProcDetActionFullTask : public Framework::Task {
public:
    ProcDetActionFullTask();

    int Init() override;
    int Run() override;
    void UnInit() override;

    // Adds the detectors on the first call, refreshes their settings on later ones.
    void PreCheckDetectors(int interval);
    int AddDeters(int interval);
    void UpdateDetectorInfo();
    // Sum of the policy weights of the flag bits set in `flags`.
    unsigned int CalcScore(int flags) const;

    // Called by the manager at the end of a cycle whose results changed: sends one
    // alert holding every live process at or above the report score.
    void DetActionNotify(const std::map<int, ProcCheckInfo>& results, void* context);
    void PrepareProcessInfo(int pid, const ProcCheckInfo& info, int score, Json::Value& item);
    void GenerateCommonAlert(Json::Value& alert);
    // Dotted text of an IPv4 address kept in network byte order.
    void ConvertIntIpToString(long address, std::string& text);

    ProcDetManager& GetManager() { return manager_; }
    int GetReportScore() const { return reportScore_; }

protected:
    ~ProcDetActionFullTask() override = default;

private:
    Poco::Logger* logger_ = nullptr;
    bool detectorsAdded_ = false;
    ProcDetManager manager_;
    int reportScore_ = ProcDetActionFullTaskPolicy::kDefaultReportScore;
    ProcDetActionFullTaskPolicy::ScoreMap scores_;
    std::set<long> illegalIps_;
    std::string biplibUrl_;
    std::string biplibHash_;
    int cpuUsageWarn_ = ProcDetActionFullTaskPolicy::kDefaultCpuUsageWarn;
    int fullReportHour_ = ProcDetActionFullTaskPolicy::kDefaultFullReportHour;  // kept, not used
    int checkStrMaxSizeM_ = ProcDetActionFullTaskPolicy::kDefaultCheckStrMaxSizeM;
    std::set<std::string> strings_;
    std::set<std::string> ignoreFilepaths_;
    // Owned by the manager once added.
    DetectorProc* detectorProc_ = nullptr;
    ProcDetNetstat* detectorNetstat_ = nullptr;
    ProcDetCpu* detectorCpu_ = nullptr;
    ProcDetStrings* detectorStrings_ = nullptr;
};

}  // namespace Engine
