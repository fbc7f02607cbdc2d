#include "ProcessCollectLog.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

void Write(Poco::Message::Priority priority, const std::string& text) {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("process_collect_module", false);
    if (logger == nullptr || logger->getLevel() < priority) {
        return;
    }
    try {
        logger->log(Poco::Message(logger->name(), text, priority));
    } catch (const Poco::Exception&) {
        // A broken log channel must not stop event delivery; there is nowhere to report it.
    }
}

}  // namespace

void ProcessCollectLog::Error(const std::string& text) {
    Write(Poco::Message::PRIO_ERROR, text);
}
void ProcessCollectLog::Info(const std::string& text) {
    Write(Poco::Message::PRIO_INFORMATION, text);
}
void ProcessCollectLog::Debug(const std::string& text) {
    Write(Poco::Message::PRIO_DEBUG, text);
}

}  // namespace Engine
