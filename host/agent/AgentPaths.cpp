#include "AgentPaths.h"

namespace Agent {

namespace {

std::string WithSlash(std::string dir) {
    if (dir.empty() || dir.back() != '/') {
        dir.push_back('/');
    }
    return dir;
}

}  // namespace

std::string AgentPaths::Under(const std::string& base, const std::string& path) {
    if (path.empty() || path[0] == '/') {
        return path;
    }
    return base + path;
}

std::string AgentPaths::PrefixOfExecutable(const std::string& executable) {
    const size_t slash = executable.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return "";
    }
    const std::string dir = executable.substr(0, slash);
    const size_t parentSlash = dir.rfind('/');
    const std::string dirName = parentSlash == std::string::npos ? dir : dir.substr(parentSlash + 1);
    if (dirName != "bin" || parentSlash == std::string::npos) {
        return "";
    }
    return WithSlash(dir.substr(0, parentSlash));
}

AgentPaths AgentPaths::Resolve(const AgentOptions& options, const std::string& executable,
                               const std::string& cwd) {
    const std::string workDir = WithSlash(cwd);
    AgentPaths paths;
    if (!options.prefix.empty()) {
        paths.prefix = WithSlash(Under(workDir, options.prefix));
    } else {
        paths.prefix = PrefixOfExecutable(executable);
        if (paths.prefix.empty()) {
            paths.prefix = kDefaultPrefix;
        }
    }
    paths.config = options.config.empty() ? paths.prefix + "conf/agent.json" : Under(workDir, options.config);
    paths.policyDir = WithSlash(options.policyDir.empty() ? paths.prefix + "conf/policies"
                                                          : Under(workDir, options.policyDir));
    paths.moduleDir = paths.prefix + "module/";
    return paths;
}

}  // namespace Agent
