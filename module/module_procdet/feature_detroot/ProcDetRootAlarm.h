#pragma once

#include <json/json.h>

#include <memory>
#include <set>
#include <string>

#include "collect/ProcsMessage.h"

namespace Poco {
class Logger;
}

namespace Engine {

// Builds the privilege-escalation alert ("procdet_0002") of a process and its
// parent, once per process identity (start time and program).
class ProcDetRootAlarm {
public:
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;

    void SetLogger(Poco::Logger* logger) { logger_ = logger; }

    // The alert's text for `process` (`parent` may be null); false when this
    // identity has had its alert already.
    bool Build(const ProcInfoPtr& process, const ProcInfoPtr& parent, int type, std::string& text);
    static void GenerateAlertHeader(int type, Json::Value& alert);

private:
    std::set<std::string> alarmedKeys_;
    Poco::Logger* logger_ = nullptr;
};

}  // namespace Engine
