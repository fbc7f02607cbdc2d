#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Agent {

// One finding about a configuration file (agent.json, a policy): the dotted key ("-" for
// the whole file), what is wrong and what becomes of it. An error means the file is not
// used (refused); a warning means it is used, and says how the reader takes the key.
struct ConfigProblem {
    enum class Severity { kError, kWarning };

    Severity severity = Severity::kWarning;
    std::string key;
    std::string what;

    static ConfigProblem Error(std::string key, std::string what) {
        return {Severity::kError, std::move(key), std::move(what)};
    }
    static ConfigProblem Warning(std::string key, std::string what) {
        return {Severity::kWarning, std::move(key), std::move(what)};
    }

    bool IsError() const { return severity == Severity::kError; }
    // "FILE: error: key: what" or "FILE: warning: key: what"
    std::string Describe(const std::string& file) const {
        return file + (IsError() ? ": error: " : ": warning: ") + key + ": " + what;
    }
};

// A problem together with the file it was found in.
struct FileProblem {
    std::string file;
    ConfigProblem problem;

    std::string Describe() const { return problem.Describe(file); }
};

inline bool AnyError(const std::vector<ConfigProblem>& problems) {
    for (const ConfigProblem& problem : problems) {
        if (problem.IsError()) {
            return true;
        }
    }
    return false;
}

}  // namespace Agent
