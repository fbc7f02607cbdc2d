#include "feature_detaction/ProcDetCmdline.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

constexpr int kCmdlineLimit = 4096;
constexpr size_t kPathBufferSize = 4096;

}  // namespace

bool ProcDetCmdline::IsDisguised(const std::string& exePath, const std::string& cmdline) {
    const size_t slash = exePath.rfind('/');
    if (slash == std::string::npos) {
        return false;  // no executable to compare with, as for kernel threads
    }
    const std::string baseName = exePath.substr(slash + 1);
    const size_t spacePos = cmdline.find(' ');
    const size_t namePos = cmdline.find(baseName);
    if (namePos != std::string::npos && (spacePos == std::string::npos || namePos < spacePos)) {
        return false;
    }
    const std::string argv0 = cmdline.substr(0, spacePos);
    if (!argv0.empty() && argv0[0] == '/') {
        char resolved[kPathBufferSize] = {0};
        static_assert(kPathBufferSize >= PATH_MAX, "realpath needs PATH_MAX bytes");
        if (realpath(argv0.c_str(), resolved) == nullptr) {
            return true;
        }
        // Compare exePath.size() bytes of the buffer, its zero padding included, so a
        // shorter resolved path never matches.
        if (exePath.size() >= kPathBufferSize) {
            return true;
        }
        return std::memcmp(resolved, exePath.data(), exePath.size()) != 0;
    }
    return exePath.find(argv0) == std::string::npos;
}

bool ProcDetCmdline::CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& /*numDetails*/,
                                  StrDetails& /*strDetails*/) {
    std::string cmdline;
    SDK::ProcessUtils::GetProcessCmdline(proc->pid, cmdline, kCmdlineLimit);
    if (IsDisguised(proc->exePath, cmdline)) {
        flags |= CMDLINE;
    }
    return true;
}

}  // namespace Engine
