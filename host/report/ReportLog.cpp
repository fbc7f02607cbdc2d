#include "ReportLog.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "sdk/LoggerUtils.h"

namespace Agent {

namespace {

void Log(Poco::Message::Priority priority, const std::string& text) {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetAgentLogger();
    if (logger != nullptr && logger->is(priority)) {
        logger->log(Poco::Message(logger->name(), text, priority));
    }
}

}  // namespace

void ReportLog::Error(const std::string& text) {
    Log(Poco::Message::PRIO_ERROR, text);
}

void ReportLog::Warning(const std::string& text) {
    Log(Poco::Message::PRIO_WARNING, text);
}

void ReportLog::Information(const std::string& text) {
    Log(Poco::Message::PRIO_INFORMATION, text);
}

}  // namespace Agent
