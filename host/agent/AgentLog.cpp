#include "AgentLog.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>
#include <cstdio>

#include "sdk/LoggerUtils.h"

namespace Agent {

namespace {

std::atomic<bool> echoErrors{true};

void Log(Poco::Message::Priority priority, const char* label, const std::string& text, bool echo) {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetAgentLogger();
    if (logger != nullptr && logger->is(priority)) {
        logger->log(Poco::Message(logger->name(), text, priority));
    }
    if (logger == nullptr || echo) {
        std::fprintf(stderr, "corvane-agent: %s: %s\n", label, text.c_str());
        std::fflush(stderr);
    }
}

}  // namespace

void AgentLog::SetEchoErrors(bool echo) {
    echoErrors.store(echo);
}

void AgentLog::Error(const std::string& text) {
    Log(Poco::Message::PRIO_ERROR, "error", text, echoErrors.load());
}

void AgentLog::Warning(const std::string& text) {
    Log(Poco::Message::PRIO_WARNING, "warning", text, false);
}

void AgentLog::Information(const std::string& text) {
    Log(Poco::Message::PRIO_INFORMATION, "information", text, false);
}

}  // namespace Agent
