#include "sdk/HostLog.h"

#include <Poco/Logger.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>

#include "sdk/JournalLog.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace SDK {

namespace {

std::atomic<bool> g_consoleErrorEcho{true};

// The file name part of __FILE__, as a pointer into the literal itself: a
// Poco::Message keeps the pointer, not a copy.
const char* BaseName(const char* file) {
    if (file == nullptr) {
        return nullptr;
    }
    const std::size_t length = std::strlen(file);
    return file + (length - PathUtils::GetFileNameFromPath(file).size());
}

void Write(Poco::Logger* logger, Poco::Message::Priority priority, const std::string& text, const char* file,
           int line) noexcept {
    if (logger == nullptr || !logger->is(priority)) {
        return;
    }
    try {
        logger->log(Poco::Message(logger->name(), text, priority, BaseName(file), line));
    } catch (const std::exception&) {
        // A broken log channel has nowhere to report to; the caller must go on.
    }
}

// The logger lookups lock a mutex, which may throw; a line without a logger is dropped.
Poco::Logger* AgentLogger() noexcept {
    try {
        return LoggerUtils::GetInstance()->GetAgentLogger();
    } catch (const std::exception&) {
        return nullptr;
    }
}

Poco::Logger* ModuleLogger(const char* name) noexcept {
    try {
        return LoggerUtils::GetInstance()->GetModuleLogger(name == nullptr ? "" : name, false);
    } catch (const std::exception&) {
        return nullptr;
    }
}

const char* Label(Poco::Message::Priority priority) {
    switch (priority) {
        case Poco::Message::PRIO_FATAL:
        case Poco::Message::PRIO_CRITICAL:
        case Poco::Message::PRIO_ERROR:
            return "error";
        case Poco::Message::PRIO_WARNING:
            return "warning";
        case Poco::Message::PRIO_NOTICE:
            return "notice";
        case Poco::Message::PRIO_INFORMATION:
            return "information";
        default:
            return "debug";
    }
}

}  // namespace

void HostLog::Agent(Poco::Message::Priority priority, const std::string& text, const char* file,
                    int line) noexcept {
    Write(AgentLogger(), priority, text, file, line);
}

void HostLog::Module(const char* loggerName, Poco::Message::Priority priority, const std::string& text,
                     const char* file, int line) noexcept {
    Write(ModuleLogger(loggerName), priority, text, file, line);
}

void HostLog::Console(Poco::Message::Priority priority, const std::string& text, const char* file,
                      int line) noexcept {
    Poco::Logger* logger = AgentLogger();
    Write(logger, priority, text, file, line);
    const bool echo = priority <= Poco::Message::PRIO_ERROR && g_consoleErrorEcho.load();
    if (logger == nullptr || echo) {
        static const bool journal = JournalLog::StderrIsJournal();
        if (journal) {
            std::fprintf(stderr, "<%d>", JournalLog::SyslogPriority(priority));
        }
        std::fprintf(stderr, "corvane-agent: %s: %s\n", Label(priority), text.c_str());
        std::fflush(stderr);
    }
}

void HostLog::SetConsoleErrorEcho(bool echo) noexcept {
    g_consoleErrorEcho.store(echo);
}

}  // namespace SDK
