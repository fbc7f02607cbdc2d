#include "FrameworkLog.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {

void Write(Poco::Message::Priority priority, const std::string& text) {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetAgentLogger();
    if (logger == nullptr || !logger->is(priority)) {
        return;
    }
    try {
        logger->log(Poco::Message(logger->name(), text, priority));
    } catch (const Poco::Exception&) {
        // A broken channel has nowhere to report to; the caller must not fail for it.
    }
}

}  // namespace

void FrameworkLog::Error(const std::string& text) {
    Write(Poco::Message::PRIO_ERROR, text);
}
void FrameworkLog::Warning(const std::string& text) {
    Write(Poco::Message::PRIO_WARNING, text);
}
void FrameworkLog::Information(const std::string& text) {
    Write(Poco::Message::PRIO_INFORMATION, text);
}
void FrameworkLog::Debug(const std::string& text) {
    Write(Poco::Message::PRIO_DEBUG, text);
}

}  // namespace Framework
