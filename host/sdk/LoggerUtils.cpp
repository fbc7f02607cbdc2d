#include "sdk/LoggerUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/PatternFormatter.h>
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <vector>

#include "sdk/PathUtils.h"
#include "sdk/PrivateFile.h"

namespace SDK {

namespace {

const char* const kAgentLoggerName = "agent";
const char* const kAgentLogFile = "agent.log";
const char* const kPattern = "%Y-%m-%d %H:%M:%S.%i [%p] %s: %t (%U:%u)";

// Loggers configured by Setup/GetModuleLogger, by name; true when the logger has a
// file of its own. Guarded by LoggerUtils::mutex_.
std::map<std::string, bool> g_configured;
Poco::AutoPtr<Poco::Channel> g_sharedChannel;

Poco::AutoPtr<Poco::Channel> Formatted(const Poco::Channel::Ptr& inner) {
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(kPattern));
    formatter->setProperty("times", "local");
    return new Poco::FormattingChannel(formatter, inner);
}

Poco::AutoPtr<Poco::Channel> ConsoleChannel() {
    return Formatted(Poco::Channel::Ptr(new Poco::ConsoleChannel));
}

std::string LogDirectory(const LogSettings& settings) {
    if (!settings.directory.empty()) {
        return settings.directory;
    }
    std::string prefix;
    PathUtils::GetInstallationPath(prefix);
    return prefix + "log";
}

// A rotating file `fileName` under the log directory; stderr when that cannot be
// opened, with the reason in `error`.
Poco::AutoPtr<Poco::Channel> BuildChannel(const LogSettings& settings, const std::string& fileName,
                                          std::string& error) {
    if (settings.target != "file") {
        if (settings.target != "stderr") {
            error = "unknown log target \"" + settings.target + "\", logging to stderr";
        }
        return ConsoleChannel();
    }
    const std::string path = LogDirectory(settings) + "/" + fileName;
    try {
        Poco::File(LogDirectory(settings)).createDirectories();
        // The log carries every alert in full: create it private (and fix an
        // older one) before Poco opens it, and never through a link.
        std::string refused;
        const int fd = PrivateFile::Open(path, O_WRONLY | O_APPEND | O_CREAT, refused);
        if (fd < 0) {
            error = "cannot log to " + refused + ", logging to stderr";
            return ConsoleChannel();
        }
        ::close(fd);
        Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
        file->setProperty("rotation", settings.rotateSize);
        file->setProperty("archive", "number");
        file->setProperty("purgeCount", std::to_string(settings.keepFiles > 0 ? settings.keepFiles : 1));
        file->open();  // fail here, not on the first log line
        return Formatted(Poco::Channel::Ptr(file));
    } catch (const Poco::Exception& e) {
        error = "cannot log to " + path + " (" + e.displayText() + "), logging to stderr";
    } catch (const std::exception& e) {
        error = "cannot log to " + path + " (" + e.what() + "), logging to stderr";
    }
    return ConsoleChannel();
}

// A Poco level name as a level; false for an unknown name.
bool ParseLevel(const std::string& name, int& level) {
    try {
        level = Poco::Logger::parseLevel(name);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

}  // namespace

LoggerUtils* LoggerUtils::GetInstance() {
    static LoggerUtils instance;
    return &instance;
}

void LoggerUtils::Setup(const LogSettings& settings) {
    std::vector<std::string> problems;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        settings_ = settings;
        int level = Poco::Message::PRIO_INFORMATION;
        if (!ParseLevel(settings.level, level)) {
            problems.push_back("unknown log level \"" + settings.level + "\", using information");
            settings_.level = "information";
        }
        std::string error;
        g_sharedChannel = BuildChannel(settings_, kAgentLogFile, error);
        if (!error.empty()) {
            problems.push_back(error);
        }
        g_configured.emplace(kAgentLoggerName, false);
        for (const auto& [name, ownFile] : g_configured) {
            Poco::Logger& logger = Poco::Logger::get(name);
            if (ownFile && settings_.target == "file") {
                error.clear();
                logger.setChannel(BuildChannel(settings_, name + ".log", error));
                if (!error.empty()) {
                    problems.push_back(error);
                }
            } else {
                logger.setChannel(g_sharedChannel);
            }
            logger.setLevel(level);
        }
        setUp_ = true;
    }
    Poco::Logger& agent = Poco::Logger::get(kAgentLoggerName);
    for (const std::string& problem : problems) {
        agent.warning(problem);
    }
}

bool LoggerUtils::IsSetUp() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return setUp_;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool ownFile) {
    std::string error;
    Poco::Logger* logger = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!setUp_ || name.empty()) {
            return nullptr;
        }
        logger = &Poco::Logger::get(name);
        // Configured once: a caller may have given the logger a channel or level of its own since.
        if (!g_configured.emplace(name, ownFile).second) {
            return logger;
        }
        if (ownFile && settings_.target == "file") {
            logger->setChannel(BuildChannel(settings_, name + ".log", error));
        } else {
            logger->setChannel(g_sharedChannel);
        }
        int level = Poco::Message::PRIO_INFORMATION;
        ParseLevel(settings_.level, level);
        logger->setLevel(level);
    }
    if (!error.empty()) {
        Poco::Logger::get(kAgentLoggerName).warning(error);
    }
    return logger;
}

Poco::Logger* LoggerUtils::GetAgentLogger() {
    std::lock_guard<std::mutex> lock(mutex_);
    return setUp_ ? &Poco::Logger::get(kAgentLoggerName) : nullptr;
}

void LoggerUtils::SetLevel(const std::string& levelName) {
    int level = 0;
    if (!ParseLevel(levelName, level)) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    settings_.level = levelName;
    for (const auto& entry : g_configured) {
        Poco::Logger::get(entry.first).setLevel(level);
    }
}

}  // namespace SDK
