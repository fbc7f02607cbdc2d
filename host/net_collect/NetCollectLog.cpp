#include "NetCollectLog.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

void Write(Poco::Message::Priority priority, const std::string& text) {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("net_collect_module", false);
    if (logger == nullptr || logger->getLevel() < priority) {
        return;
    }
    try {
        logger->log(Poco::Message(logger->name(), text, priority));
    } catch (const Poco::Exception&) {
        // A broken log channel must not stop the collection; there is nowhere to report it.
    }
}

}  // namespace

void NetCollectLog::Error(const std::string& text) {
    Write(Poco::Message::PRIO_ERROR, text);
}
void NetCollectLog::Info(const std::string& text) {
    Write(Poco::Message::PRIO_INFORMATION, text);
}
void NetCollectLog::Debug(const std::string& text) {
    Write(Poco::Message::PRIO_DEBUG, text);
}

}  // namespace Engine
