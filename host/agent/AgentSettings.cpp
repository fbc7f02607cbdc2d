#include "AgentSettings.h"

#include <sys/stat.h>

#include <cerrno>

#include "AgentPaths.h"
#include "AgentSettingsParser.h"
#include "TextFile.h"

namespace Agent {

namespace {

// agent.json is a few hundred bytes; the cap bounds a mistaken or hostile file.
constexpr size_t kMaxConfigBytes = 1024 * 1024;

}  // namespace

std::vector<ConfigProblem> AgentSettings::LoadFile(const std::string& path, AgentSettings& out) {
    std::string text;
    std::string error;
    if (!TextFile::Read(path, kMaxConfigBytes, text, error)) {
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 && errno == ENOENT) {
            return {ConfigProblem::Warning("-", "does not exist; using the default settings")};
        }
        return {ConfigProblem::Error("-", "cannot be read (" + error + "); using the default settings")};
    }
    return AgentSettingsParser::Parse(text, out);
}

void AgentSettings::ResolvePaths(const std::string& prefix) {
    log.directory = AgentPaths::Under(prefix, log.directory.empty() ? std::string("log/") : log.directory);
    alerts.filePath = AgentPaths::Under(prefix, alerts.filePath);
    alerts.spoolDir = AgentPaths::Under(prefix, alerts.spoolDir);
    for (SinkSettings& sink : alerts.sinks) {
        for (std::string* path :
             {&sink.path, &sink.socket, &sink.tokenFile, &sink.headerFile, &sink.caFile}) {
            *path = AgentPaths::Under(prefix, *path);
        }
    }
}

}  // namespace Agent
