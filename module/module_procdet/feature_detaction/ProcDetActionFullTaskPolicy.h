#pragma once

#include <json/json.h>

#include <map>
#include <set>
#include <string>

#include "framework/TaskPolicy.h"

namespace Engine {

// Kind tag of this module's policies.
inline constexpr int kProcDetPolicyKind = 180;
inline constexpr const char* kDetActionTaskName = "detaction_full_task";
inline constexpr const char* kDetActionFeatureName = "proc_detaction_feature";

// The settings of "detaction_full_task", copied by the task in its Init.
class ProcDetActionFullTaskPolicy : public Framework::TaskPolicy {
public:
    using ScoreMap = std::map<unsigned int, int>;

    static constexpr int kDefaultReportScore = 3;
    static constexpr int kDefaultCpuUsageWarn = 9000;
    static constexpr int kDefaultFullReportHour = 3;
    static constexpr int kDefaultCheckStrMaxSizeM = 10;

    explicit ProcDetActionFullTaskPolicy(const std::string& name);

    // Stops at the first missing section; what was stored before stays (see the .cpp).
    bool Parse(const std::string& content) override;
    // Fills the address, keyword and ignored-path sets; `conditionParsed` is not consulted.
    void ParseRuleContent(const Json::Value& root, bool conditionParsed);

    int GetReportScore() const { return reportScore_; }
    const ScoreMap& GetScoreMap() const { return scores_; }
    const std::set<long>& GetIllegalIps() const { return illegalIps_; }
    const std::string& GetBiplibUrl() const { return biplibUrl_; }
    const std::string& GetBiplibHash() const { return biplibHash_; }
    int GetCpuUsageWarn() const { return cpuUsageWarn_; }
    int GetFullReportHour() const { return fullReportHour_; }
    int GetCheckStrMaxSizeM() const { return checkStrMaxSizeM_; }
    const std::set<std::string>& GetStrings() const { return strings_; }
    const std::set<std::string>& GetIgnoreFilepaths() const { return ignoreFilepaths_; }

private:
    int reportScore_ = kDefaultReportScore;
    ScoreMap scores_;
    std::set<long> illegalIps_;  // inet_addr values, network byte order
    std::string biplibUrl_;
    std::string biplibHash_;
    int cpuUsageWarn_ = kDefaultCpuUsageWarn;
    int fullReportHour_ = kDefaultFullReportHour;
    int checkStrMaxSizeM_ = kDefaultCheckStrMaxSizeM;
    std::set<std::string> strings_;
    std::set<std::string> ignoreFilepaths_;
};

}  // namespace Engine
