#pragma once

#include <Poco/Logger.h>

#include <mutex>
#include <string>

namespace SDK {

// Logging settings of the agent.
struct LogSettings {
    std::string level =
        "information";                // a Poco level name: error, warning, notice, information, debug, trace
    std::string target = "file";      // "file" (rotating, under `directory`) or "stderr"
    std::string directory;            // for "file": the prefix's log/ when empty
    std::string rotateSize = "10 M";  // Poco FileChannel rotation
    int keepFiles = 5;
};

class LoggerUtils {
public:
    static LoggerUtils* GetInstance();

    // Sets up the agent's channel and level; may be called again to change them.
    void Setup(const LogSettings& settings);
    bool IsSetUp() const;

    // The logger of a module, null before Setup. `ownFile`: with target "file",
    // the module writes to log/<name>.log of its own instead of the agent's log.
    Poco::Logger* GetModuleLogger(const std::string& name, bool ownFile);
    // The agent's own logger, null before Setup.
    Poco::Logger* GetAgentLogger();
    // Changes the level of every logger configured so far and of those to come;
    // an unknown level name is ignored.
    void SetLevel(const std::string& level);

private:
    LoggerUtils() = default;
    mutable std::mutex mutex_;
    bool setUp_ = false;
    LogSettings settings_;
};

}  // namespace SDK
