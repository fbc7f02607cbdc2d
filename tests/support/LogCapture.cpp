#include "support/LogCapture.h"

#include <Poco/Logger.h>

#include "sdk/LoggerUtils.h"

namespace TestSupport {

class LogCapture::Channel : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back({message.getPriority(), message.getText(),
                         message.getSourceFile() != nullptr ? message.getSourceFile() : "",
                         message.getSourceLine()});
    }

    mutable std::mutex mutex;
    std::vector<Line> lines;
};

LogCapture::LogCapture(const std::string& loggerName, int level) : name_(loggerName), channel_(new Channel) {
    SDK::LoggerUtils* logging = SDK::LoggerUtils::GetInstance();
    if (!logging->IsSetUp()) {
        SDK::LogSettings settings;
        settings.target = "stderr";
        settings.level = "error";
        logging->Setup(settings);
    }
    // Let the host configure the logger first, so it does not overwrite the capture later.
    logging->GetModuleLogger(loggerName, false);
    Poco::Logger& logger = Poco::Logger::get(loggerName);
    previousChannel_ = logger.getChannel();
    previousLevel_ = logger.getLevel();
    logger.setChannel(channel_);
    logger.setLevel(level);
}

LogCapture::~LogCapture() {
    Poco::Logger& logger = Poco::Logger::get(name_);
    logger.setChannel(previousChannel_);
    logger.setLevel(previousLevel_);
}

std::vector<LogCapture::Line> LogCapture::GetLines() const {
    std::lock_guard<std::mutex> lock(channel_->mutex);
    return channel_->lines;
}

size_t LogCapture::Count(const std::string& needle) const {
    std::lock_guard<std::mutex> lock(channel_->mutex);
    size_t count = 0;
    for (const Line& line : channel_->lines) {
        if (line.text.find(needle) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(channel_->mutex);
    channel_->lines.clear();
}

}  // namespace TestSupport
