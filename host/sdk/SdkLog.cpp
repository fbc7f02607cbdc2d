#include "SdkLog.h"

#include <exception>

#include "sdk/LoggerUtils.h"

namespace SDK {

void LogSdkWarning(const std::string& text) noexcept {
    try {
        Poco::Logger* logger = LoggerUtils::GetInstance()->GetAgentLogger();
        if (logger != nullptr) {
            logger->warning(text);
        }
    } catch (const std::exception&) {
        // A lost log line must not turn a reported failure into a thrown one.
    }
}

}  // namespace SDK
