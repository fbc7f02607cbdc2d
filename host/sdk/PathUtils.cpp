#include "sdk/PathUtils.h"

#include <mutex>

namespace SDK {

namespace {

const char* const kDefaultPrefix = "/usr/local/corvane/";

std::mutex& PrefixMutex() {
    static std::mutex mutex;
    return mutex;
}

std::string& Prefix() {
    static std::string prefix = kDefaultPrefix;
    return prefix;
}

}  // namespace

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void PathUtils::GetInstallationPath(std::string& out) {
    std::lock_guard<std::mutex> lock(PrefixMutex());
    out = Prefix();
}

void PathUtils::SetInstallationPath(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(PrefixMutex());
    if (prefix.empty()) {
        Prefix() = kDefaultPrefix;
        return;
    }
    // Callers append relative paths ("conf/...") directly, so the prefix must end in "/".
    Prefix() = prefix.back() == '/' ? prefix : prefix + "/";
}

}  // namespace SDK
