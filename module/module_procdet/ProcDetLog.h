#pragma once

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>
#include <string>
#include <utility>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

inline constexpr const char* kModuleName = "proc_det_module";

// The module's logger; null while the host has not set logging up.
inline Poco::Logger* GetProcDetLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false);
}

// Formats and sends one log line. Poco::format is type-strict: pass int for %d,
// long for %ld, unsigned for %u, unsigned long for %lu, bool for %b and
// std::string (never a char pointer) for %s.
template <typename... Args>
void WriteProcDetLog(Poco::Logger* logger, Poco::Message::Priority priority, const char* sourcePath, int line,
                     const std::string& format, Args&&... args) noexcept {
    try {
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = format;
        } else {
            text = Poco::format(format, std::forward<Args>(args)...);
        }
        const std::string file = SDK::PathUtils::GetFileNameFromPath(sourcePath);
        logger->log(Poco::Message(logger->name(), text, priority, file.c_str(), line));
    } catch (const Poco::Exception&) {
        // A log line that cannot be formatted or written must not end a detection cycle.
    } catch (const std::exception&) {
    }
}

// One call site of the host's CPU governor, with its own remembered tick.
// Returns true when the thread was held back.
inline bool PaceProcDetCpu(unsigned long& lastTick, const char* sourcePath, int line, const char* taskName) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return false;
    }
    const unsigned long tick = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long diff = tick > lastTick ? tick - lastTick : lastTick - tick;
    if (diff <= SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        return false;
    }
    SDK::InnerCpuCtrlUtils::AdjustThreadCpu(sourcePath, line, taskName, tick, diff);
    lastTick = tick;
    return true;
}

}  // namespace Engine

// Logs only when the logger exists and admits `priority`; arguments are not even
// evaluated otherwise. Every file that logs defines kProcDetSource: the module-relative
// path of its class without extension, whose last component names the line's source.
#define PROCDET_LOG(logger, priority, ...)                                                                \
    do {                                                                                                  \
        Poco::Logger* procdetLogger_ = (logger);                                                          \
        if (procdetLogger_ != nullptr && procdetLogger_->getLevel() >= (priority)) {                      \
            ::Engine::WriteProcDetLog(procdetLogger_, (priority), kProcDetSource, __LINE__, __VA_ARGS__); \
        }                                                                                                 \
    } while (0)

#define PROCDET_DEBUG(logger, ...) PROCDET_LOG(logger, Poco::Message::PRIO_DEBUG, __VA_ARGS__)
#define PROCDET_INFO(logger, ...) PROCDET_LOG(logger, Poco::Message::PRIO_INFORMATION, __VA_ARGS__)
#define PROCDET_ERROR(logger, ...) PROCDET_LOG(logger, Poco::Message::PRIO_ERROR, __VA_ARGS__)

// A governor call site: each expansion keeps its own process-wide tick.
// Evaluates to true when the thread was held back.
#define PROCDET_PACE_CPU(taskName)                                                             \
    ([]() {                                                                                    \
        static unsigned long procdetLastTick_ = 0;                                             \
        return ::Engine::PaceProcDetCpu(procdetLastTick_, kProcDetSource, __LINE__, taskName); \
    }())
