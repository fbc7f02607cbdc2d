#include "feature_detaction/ProcDetActionFullTaskPolicy.h"

#include <arpa/inet.h>

#include <array>

#include "ProcDetLog.h"
#include "feature_detaction/ProcDetBase.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetActionFullTaskPolicy";

struct ScoreKey {
    const char* key;
    unsigned int flag;
    int defaultWeight;
};

// CMDLINE has no weight on purpose: a command-line finding never adds to the score.
constexpr std::array<ScoreKey, 8> kScoreKeys = {{
    {"tmp", PROC_TMP, 1},
    {"hidden", PROC_HIDDEN, 1},
    {"deleted", PROC_DELETED, 1},
    {"loginothers", LOGIN_OTHERS, 3},
    {"bip", CONNECT_BIP, 3},
    {"cpu", HIGHCPU, 1},
    {"strings", STRINGS, 3},
    {"packer", PACKER, 0},
}};

// Each element of array `key` as a string, as jsoncpp's asString gives it (5 is
// "5", true is "true"); arrays and objects have no string value and are skipped.
template <typename Visit>
void ForEachString(const Json::Value& root, const char* key, Visit visit) {
    Json::Value array;
    if (!SDK::JsonUtils::GetArrayValue(root, key, array)) {
        return;
    }
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        if (!array[i].isConvertibleTo(Json::stringValue)) {
            PROCDET_ERROR(GetProcDetLogger(), "policy \"%s\": element %u is no string, skipped",
                          std::string(key), static_cast<unsigned>(i));
            continue;
        }
        visit(array[i].asString());
    }
}

}  // namespace

ProcDetActionFullTaskPolicy::ProcDetActionFullTaskPolicy(const std::string& name)
    : Framework::TaskPolicy(name) {
    SetKind(kProcDetPolicyKind);
}

bool ProcDetActionFullTaskPolicy::Parse(const std::string& content) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return false;
    }
    Json::Value condition;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "task_condition", condition)) {
        return false;
    }
    const bool conditionParsed = ParseCondition(SDK::JsonUtils::JsonToString(condition));

    // Missing keys fall back to their defaults, so a later policy can reset them.
    reportScore_ = SDK::JsonUtils::GetIntValue(root, "report_score", kDefaultReportScore);
    cpuUsageWarn_ = SDK::JsonUtils::GetIntValue(root, "cpu_usage_warn", kDefaultCpuUsageWarn);
    checkStrMaxSizeM_ = SDK::JsonUtils::GetIntValue(root, "check_str_max_size_m", kDefaultCheckStrMaxSizeM);
    fullReportHour_ = SDK::JsonUtils::GetIntValue(root, "full_report_hour", kDefaultFullReportHour);
    biplibUrl_ = SDK::JsonUtils::GetStringValue(root, "biplib_url", "");
    biplibHash_ = SDK::JsonUtils::GetStringValue(root, "biplib_hash", "");
    ParseRuleContent(root, conditionParsed);

    scores_.clear();
    Json::Value score;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "score", score)) {
        return false;  // everything else is stored; without weights every process scores 0
    }
    for (const ScoreKey& entry : kScoreKeys) {
        scores_[entry.flag] = SDK::JsonUtils::GetIntValue(score, entry.key, entry.defaultWeight);
    }
    return true;
}

void ProcDetActionFullTaskPolicy::ParseRuleContent(const Json::Value& root, bool /*conditionParsed*/) {
    illegalIps_.clear();
    ForEachString(root, "illegal_ip_list", [this](const std::string& text) {
        // INADDR_NONE is both "unparsable" and 255.255.255.255; neither is a useful entry.
        const in_addr_t address = inet_addr(text.c_str());
        if (address != INADDR_NONE) {
            illegalIps_.insert(static_cast<long>(address));
        }
    });
    strings_.clear();
    ForEachString(root, "strings", [this](const std::string& text) { strings_.insert(text); });
    ignoreFilepaths_.clear();
    ForEachString(root, "ignore_filepath",
                  [this](const std::string& text) { ignoreFilepaths_.insert(text); });
}

}  // namespace Engine
