#pragma once

#include <Poco/Message.h>

#include <string>

namespace SDK {

// One line on a host logger, marked with the source file and line it was written
// from. Lines are dropped before logging is set up (except console lines, below)
// and nothing here throws: a lost log line must never become the caller's failure.
// Use the HOST_LOG_* macros rather than these functions, so the place is filled in.
class HostLog {
public:
    // On the agent's logger.
    static void Agent(Poco::Message::Priority priority, const std::string& text, const char* file,
                      int line) noexcept;
    // On the module logger `loggerName`, which shares the agent's log.
    static void Module(const char* loggerName, Poco::Message::Priority priority, const std::string& text,
                       const char* file, int line) noexcept;
    // On the agent's logger and also on standard error, as "corvane-agent: <level>: text":
    // always before logging is set up, and for errors while error echo is on (the log
    // is a file that whoever started the agent does not watch).
    static void Console(Poco::Message::Priority priority, const std::string& text, const char* file,
                        int line) noexcept;
    static void SetConsoleErrorEcho(bool echo) noexcept;
};

}  // namespace SDK

#define HOST_LOG_ERROR(text) ::SDK::HostLog::Agent(::Poco::Message::PRIO_ERROR, (text), __FILE__, __LINE__)
#define HOST_LOG_WARNING(text) \
    ::SDK::HostLog::Agent(::Poco::Message::PRIO_WARNING, (text), __FILE__, __LINE__)
#define HOST_LOG_INFO(text) \
    ::SDK::HostLog::Agent(::Poco::Message::PRIO_INFORMATION, (text), __FILE__, __LINE__)
#define HOST_LOG_DEBUG(text) ::SDK::HostLog::Agent(::Poco::Message::PRIO_DEBUG, (text), __FILE__, __LINE__)

#define HOST_MODULE_LOG_ERROR(logger, text) \
    ::SDK::HostLog::Module((logger), ::Poco::Message::PRIO_ERROR, (text), __FILE__, __LINE__)
#define HOST_MODULE_LOG_INFO(logger, text) \
    ::SDK::HostLog::Module((logger), ::Poco::Message::PRIO_INFORMATION, (text), __FILE__, __LINE__)
#define HOST_MODULE_LOG_DEBUG(logger, text) \
    ::SDK::HostLog::Module((logger), ::Poco::Message::PRIO_DEBUG, (text), __FILE__, __LINE__)

#define HOST_CONSOLE_LOG_ERROR(text) \
    ::SDK::HostLog::Console(::Poco::Message::PRIO_ERROR, (text), __FILE__, __LINE__)
#define HOST_CONSOLE_LOG_WARNING(text) \
    ::SDK::HostLog::Console(::Poco::Message::PRIO_WARNING, (text), __FILE__, __LINE__)
// Start, reload and stop: what an operator running at "notice" still wants to see.
#define HOST_CONSOLE_LOG_NOTICE(text) \
    ::SDK::HostLog::Console(::Poco::Message::PRIO_NOTICE, (text), __FILE__, __LINE__)
#define HOST_CONSOLE_LOG_INFO(text) \
    ::SDK::HostLog::Console(::Poco::Message::PRIO_INFORMATION, (text), __FILE__, __LINE__)
