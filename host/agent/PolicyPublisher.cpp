#include "PolicyPublisher.h"

#include "AgentMetrics.h"
#include "ConfigCheck.h"
#include "PolicySchema.h"
#include "framework/Engine.h"
#include "framework/Metrics.h"
#include "sdk/HostLog.h"

namespace Agent {

PolicyPublisher::PolicyPublisher(Framework::Engine& engine, PolicyDirectory& directory,
                                 const PolicySchemas* schemas)
    : engine_(engine), directory_(directory), schemas_(schemas) {}

int PolicyPublisher::PublishChanges() {
    const PolicyDirectory::Snapshot snapshot = directory_.Scan();
    CountRefused(snapshot.CountUnreadable());
    int delivered = 0;
    for (const PolicyDirectory::Change& change : directory_.ChangesFrom(snapshot)) {
        if (Publish(change)) {
            ++delivered;
            AgentMetrics::PolicyRefreshes().Increment();
        } else {
            CountRefused(1);
        }
    }
    return delivered;
}

void PolicyPublisher::CountRefused(size_t count) {
    if (count == 0) {
        return;
    }
    refused_ += count;
    AgentMetrics::PolicyRefusals().Increment(static_cast<double>(count));
}

bool PolicyPublisher::Publish(const PolicyDirectory::Change& change) {
    const std::string what = "policy \"" + change.feature + "\" of id " + change.id;
    size_t warnings = 0;
    if (!change.removed) {
        const PolicySchemas none;
        const std::vector<ConfigProblem> problems = ConfigCheck::CheckPolicy(
            schemas_ != nullptr ? *schemas_ : none, change.id, change.feature, change.text);
        for (const ConfigProblem& problem : problems) {
            if (problem.IsError()) {
                HOST_CONSOLE_LOG_ERROR("policy file " + problem.Describe(change.path) + "; the " + what +
                                       " in force stays");
                return false;
            }
            HOST_CONSOLE_LOG_WARNING("policy file " + problem.Describe(change.path));
            ++warnings;
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
    if (change.removed) {
        HOST_CONSOLE_LOG_INFO("policy file " + change.path + " removed: " + what + " disabled");
    } else {
        HOST_CONSOLE_LOG_INFO(
            "delivered " + what + " from " + change.path +
            (warnings == 0 ? std::string() : " (" + std::to_string(warnings) + " warnings, logged above)"));
    }
    return true;
}

}  // namespace Agent
