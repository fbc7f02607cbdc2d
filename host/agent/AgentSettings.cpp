#include "AgentSettings.h"

#include "AgentSettingsParser.h"
#include "TextFile.h"

namespace Agent {

namespace {

// agent.json is a few hundred bytes; the cap bounds a mistaken or hostile file.
constexpr size_t kMaxConfigBytes = 1024 * 1024;

}  // namespace

std::vector<std::string> AgentSettings::LoadFile(const std::string& path, AgentSettings& out) {
    std::string text;
    std::string error;
    if (!TextFile::Read(path, kMaxConfigBytes, text, error)) {
        return {path + ": -: cannot be read (" + error + "); using the default settings"};
    }
    std::vector<std::string> problems = AgentSettingsParser::Parse(text, out);
    for (std::string& problem : problems) {
        problem = path + ": " + problem;
    }
    return problems;
}

}  // namespace Agent
