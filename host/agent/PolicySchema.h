#pragma once

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

#include "ConfigProblem.h"

namespace Agent {

// What a module declares about the policies it takes, read from the
// "<library>.schema.json" file installed beside the module library, so that the
// agent checks policy texts without running module code. The schema describes
// how the module reads each key, so that every finding can say what the module
// will make of it; the findings are warnings: the module reads any JSON object.
// A schema names one policy id and, per feature, a tree of typed nodes:
//   {"type": "object", "members": {...}, "required": [...], "required_if_enabled": [...]}
//   {"type": "integer", "min": N, "max": N, "advised": {"min": N, "below": "...", "max": N, "above": "..."}}
//   {"type": "boolean"}   {"type": "string", "format": "sha256", "malformed": "..."}
//   {"type": "scalar", "min_length": N, "too_short": "...", "max_length": N, "too_long": "..."}
//   {"type": "ipv4"}   {"type": "array", "items": NODE}
//   {"$ref": "NAME", ...}: the node "NAME" under "definitions", refined by the members beside "$ref".
// Any node may carry "default" (the value the module takes for a missing or unreadable
// key), "unusable" (in words, what the module does then) and "no_effect" (read, never used).
// "min" and "max" of an integer are what the module can read (a 32-bit integer unless
// given); "advised" is where values make sense. Objects report members they do not list.
class PolicySchema {
public:
    // The schema file beside a module library: "x/libm.so" -> "x/libm.schema.json".
    static std::string PathBeside(const std::string& modulePath);

    // False with why when the file cannot be read or is malformed.
    bool Load(const std::string& path, std::string& error);

    const std::string& GetPolicyId() const { return policyId_; }
    bool KnowsFeature(const std::string& feature) const { return features_.isMember(feature); }

    // The warnings for one policy document (a JSON object) of `feature`; an unknown feature is one too.
    std::vector<ConfigProblem> Check(const std::string& feature, const Json::Value& document) const;

private:
    void CheckNode(const Json::Value& node, const Json::Value& value, const std::string& key,
                   std::vector<ConfigProblem>& problems, int depth) const;
    void CheckObject(const Json::Value& node, const Json::Value& value, const std::string& key,
                     std::vector<ConfigProblem>& problems, int depth) const;
    Json::Value Resolve(const Json::Value& node) const;

    std::string path_;
    std::string policyId_;
    Json::Value features_;
    Json::Value definitions_;
};

// The schemas of several modules, by policy id.
class PolicySchemas {
public:
    // Loads the schema beside each module library that has one; malformed ones are
    // returned as warnings (the agent then checks those policies for JSON only) and left out.
    std::vector<FileProblem> LoadBeside(const std::vector<std::string>& modulePaths);
    // Null when no module describes `id`.
    const PolicySchema* Find(const std::string& id) const;

private:
    std::map<std::string, PolicySchema> byId_;
};

}  // namespace Agent
