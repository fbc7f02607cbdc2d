#include "PolicyPublisher.h"

#include <json/json.h>

#include <memory>

#include "ConfigCheck.h"
#include "framework/Engine.h"
#include "framework/Metrics.h"
#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

// jsoncpp's own account of what is wrong, on one line.
bool CheckJson(const std::string& text, std::string& error) {
    Json::Value document;
    return SDK::JsonUtils::ParseBounded(text.data(), text.size(), document, error);
}

}  // namespace

PolicyPublisher::PolicyPublisher(Framework::Engine& engine, PolicyDirectory& directory,
                                 const PolicySchemas* schemas)
    : engine_(engine), directory_(directory), schemas_(schemas) {}

int PolicyPublisher::PublishChanges() {
    int delivered = 0;
    for (const PolicyDirectory::Change& change : directory_.FindChanges()) {
        if (Publish(change)) {
            ++delivered;
            Framework::Metrics::Instance()
                .Counter("corvane_policy_refreshes_total", "Policies delivered to the modules")
                .Increment();
        } else {
            ++refused_;
            Framework::Metrics::Instance()
                .Counter("corvane_policy_refusals_total",
                         "Policy files not delivered (bad JSON, schema, refused)")
                .Increment();
        }
    }
    return delivered;
}

bool PolicyPublisher::Publish(const PolicyDirectory::Change& change) {
    const std::string what = "policy \"" + change.feature + "\" of id " + change.id;
    std::string error;
    if (!change.removed && !CheckJson(change.text, error)) {
        HOST_CONSOLE_LOG_ERROR("policy file " + change.path + " is not valid JSON (" + error + "); the " +
                               what + " in force stays");
        return false;
    }
    if (!change.removed && schemas_ != nullptr) {
        const std::vector<std::string> problems =
            ConfigCheck::CheckPolicy(*schemas_, change.path, change.id, change.feature, change.text);
        for (const std::string& problem : problems) {
            HOST_CONSOLE_LOG_ERROR("policy file " + problem);
        }
        if (!problems.empty()) {
            HOST_CONSOLE_LOG_ERROR("policy file " + change.path + " not delivered (" +
                                   std::to_string(problems.size()) + " problems); the " + what +
                                   " in force stays");
            return false;
        }
    }
    const int result = engine_.DeliverPolicy(change.id, change.feature, change.text);
    if (result == -2) {
        HOST_CONSOLE_LOG_ERROR("policy file " + change.path + ": no loaded module takes policy id " +
                               change.id + "; not delivered");
        if (change.removed) {
            directory_.MarkDelivered(change);
        }
        return false;
    }
    if (result != 0) {
        HOST_CONSOLE_LOG_ERROR("policy file " + change.path + " was refused (" + std::to_string(result) +
                               "); the " + what + " in force stays");
        return false;
    }
    directory_.MarkDelivered(change);
    HOST_CONSOLE_LOG_INFO(change.removed ? "policy file " + change.path + " removed: " + what + " disabled"
                                         : "delivered " + what + " from " + change.path);
    return true;
}

}  // namespace Agent
