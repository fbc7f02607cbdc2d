#pragma once

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace Agent {

// One thing wrong with a configuration file: the dotted key ("-" for the whole
// file) and what is wrong with it.
struct ConfigProblem {
    std::string key;
    std::string what;

    // "FILE: key: what"
    std::string Describe(const std::string& file) const { return file + ": " + key + ": " + what; }
};

// What a module declares about the policies it takes, read from the
// "<library>.schema.json" file installed beside the module library, so that the
// agent checks policy texts without running module code. A schema names one
// policy id and, per feature, a tree of typed nodes:
//   {"type": "object", "members": {...}, "required": [...], "required_if_enabled": [...]}
//   {"type": "integer", "min": N, "max": N}   {"type": "boolean"}   {"type": "ipv4"}
//   {"type": "string", "min_length": N, "max_length": N}
//   {"type": "array", "items": NODE, "max_items": N}
//   {"$ref": "NAME"} for a node under "definitions".
// Objects refuse members they do not list.
class PolicySchema {
public:
    // The schema file beside a module library: "x/libm.so" -> "x/libm.schema.json".
    static std::string PathBeside(const std::string& modulePath);

    // False with a sentence naming the file when it cannot be read or is malformed.
    bool Load(const std::string& path, std::string& error);

    const std::string& GetPolicyId() const { return policyId_; }
    bool KnowsFeature(const std::string& feature) const { return features_.isMember(feature); }
    std::vector<std::string> GetFeatures() const { return features_.getMemberNames(); }

    // Checks one policy text of `feature`; an unknown feature is a problem too.
    std::vector<ConfigProblem> Check(const std::string& feature, const std::string& text) const;

private:
    void CheckNode(const Json::Value& node, const Json::Value& value, const std::string& key,
                   std::vector<ConfigProblem>& problems, int depth) const;
    void CheckObject(const Json::Value& node, const Json::Value& value, const std::string& key,
                     std::vector<ConfigProblem>& problems, int depth) const;
    const Json::Value& Resolve(const Json::Value& node) const;

    std::string path_;
    std::string policyId_;
    Json::Value features_;
    Json::Value definitions_;
};

// The schemas of several modules, by policy id.
class PolicySchemas {
public:
    // Loads the schema beside each module library that has one; malformed ones are
    // returned as errors and left out.
    std::vector<std::string> LoadBeside(const std::vector<std::string>& modulePaths);
    // Null when no module describes `id`.
    const PolicySchema* Find(const std::string& id) const;

private:
    std::map<std::string, PolicySchema> byId_;
};

// Parses a JSON text strictly (no trailing data, no comments); false with
// jsoncpp's reason on one line.
bool ParseStrictJson(const std::string& text, Json::Value& out, std::string& error);

}  // namespace Agent
