#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/LoggerUtils.h"

namespace TestSupport {

// Sets up the host's logging, unless done already: stderr, at $CORVANE_TEST_LOG_LEVEL (default "error").
inline bool SetUpTestLogging() {
    SDK::LoggerUtils* logging = SDK::LoggerUtils::GetInstance();
    if (!logging->IsSetUp()) {
        SDK::LogSettings settings;
        settings.target = "stderr";
        const char* level = std::getenv("CORVANE_TEST_LOG_LEVEL");
        settings.level = level != nullptr ? level : "error";
        logging->Setup(settings);
    }
    return true;
}

// Captures the lines of one logger (e.g. "proc_det_module") in memory at the
// given level for the life of the object; restores the logger afterwards.
class LogCapture {
public:
    struct Line {
        std::string text;
        std::string file;
    };

    explicit LogCapture(const std::string& loggerName, int level = Poco::Message::PRIO_DEBUG)
        : logger_(Poco::Logger::get(loggerName)), channel_(new Channel) {
        SetUpTestLogging();
        // Let the host configure the logger first, so it does not overwrite the capture later.
        SDK::LoggerUtils::GetInstance()->GetModuleLogger(loggerName, false);
        previousChannel_ = logger_.getChannel();
        previousLevel_ = logger_.getLevel();
        logger_.setChannel(channel_);
        logger_.setLevel(level);
    }
    ~LogCapture() {
        logger_.setChannel(previousChannel_);
        logger_.setLevel(previousLevel_);
    }

    std::vector<Line> GetLines() const {
        std::lock_guard<std::mutex> lock(channel_->mutex);
        return channel_->lines;
    }
    // Number of captured lines whose text contains `needle`.
    size_t Count(const std::string& needle) const {
        const std::vector<Line> lines = GetLines();
        return std::count_if(lines.begin(), lines.end(),
                             [&](const Line& line) { return line.text.find(needle) != std::string::npos; });
    }
    bool Contains(const std::string& needle) const { return Count(needle) > 0; }
    void Clear() {
        std::lock_guard<std::mutex> lock(channel_->mutex);
        channel_->lines.clear();
    }

private:
    struct Channel : Poco::Channel {
        void log(const Poco::Message& message) override {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(
                {message.getText(), message.getSourceFile() != nullptr ? message.getSourceFile() : ""});
        }
        mutable std::mutex mutex;
        std::vector<Line> lines;
    };

    Poco::Logger& logger_;
    Poco::AutoPtr<Channel> channel_;
    Poco::AutoPtr<Poco::Channel> previousChannel_;
    int previousLevel_ = 0;
};

}  // namespace TestSupport
