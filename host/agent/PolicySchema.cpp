#include "PolicySchema.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <memory>

#include "TextFile.h"

#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

constexpr size_t kMaxSchemaBytes = 256 * 1024;
// Deeper policies than their schema are refused before this; it only bounds a malformed schema.
constexpr int kMaxDepth = 32;

std::string Join(const std::string& key, const std::string& member) {
    return key.empty() ? member : key + "." + member;
}

std::string ShownKey(const std::string& key) {
    return key.empty() ? "-" : key;
}

std::string TypeName(const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
            return "an integer";
        case Json::realValue:
            return "a number with a fraction";
        case Json::stringValue:
            return "a string";
        case Json::booleanValue:
            return "a boolean";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
    }
    return "unknown";
}

bool IsEnabled(const Json::Value& document) {
    const Json::Value& enabled = document["enabled"];
    return enabled.isBool() && enabled.asBool();
}

}  // namespace

bool ParseStrictJson(const std::string& text, Json::Value& out, std::string& error) {
    // The bounded parse refuses deep nesting and oversized texts (which make jsoncpp
    // throw) before the strict one looks for duplicate keys and comments.
    if (!SDK::JsonUtils::ParseBounded(text.data(), text.size(), out, error)) {
        return false;
    }
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    builder["allowTrailingCommas"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &out, &error)) {
        return true;
    }
    for (char& c : error) {
        c = (c == '\n') ? ' ' : c;
    }
    while (!error.empty() && error.back() == ' ') {
        error.pop_back();
    }
    return false;
}

std::string PolicySchema::PathBeside(const std::string& modulePath) {
    const std::string suffix = ".so";
    std::string base = modulePath;
    if (base.size() > suffix.size() &&
        base.compare(base.size() - suffix.size(), suffix.size(), suffix) == 0) {
        base.erase(base.size() - suffix.size());
    }
    return base + ".schema.json";
}

bool PolicySchema::Load(const std::string& path, std::string& error) {
    path_ = path;
    std::string text;
    if (!TextFile::Read(path, kMaxSchemaBytes, text, error)) {
        error = "cannot read the policy schema " + path + " (" + error + ")";
        return false;
    }
    Json::Value root;
    if (!ParseStrictJson(text, root, error)) {
        error = "the policy schema " + path + " is not valid JSON (" + error + ")";
        return false;
    }
    if (!root.isObject() || !root["policy_id"].isString() || !root["features"].isObject()) {
        error = "the policy schema " + path + " lacks \"policy_id\" or \"features\"";
        return false;
    }
    policyId_ = root["policy_id"].asString();
    features_ = root["features"];
    definitions_ = root["definitions"];
    return true;
}

const Json::Value& PolicySchema::Resolve(const Json::Value& node) const {
    if (node.isObject() && node["$ref"].isString() && definitions_.isObject()) {
        const std::string name = node["$ref"].asString();
        if (definitions_.isMember(name)) {
            return definitions_[name];
        }
    }
    return node;
}

std::vector<ConfigProblem> PolicySchema::Check(const std::string& feature, const std::string& text) const {
    std::vector<ConfigProblem> problems;
    Json::Value document;
    std::string error;
    if (!ParseStrictJson(text, document, error)) {
        problems.push_back({"-", "not valid JSON (" + error + ")"});
        return problems;
    }
    if (!features_.isMember(feature)) {
        std::string known;
        for (const std::string& name : features_.getMemberNames()) {
            known += (known.empty() ? "" : ", ") + name;
        }
        problems.push_back({"-", "no module takes the feature \"" + feature + "\" under policy id " +
                                     policyId_ + " (known: " + known + ")"});
        return problems;
    }
    CheckNode(features_[feature], document, "", problems, 0);
    return problems;
}

void PolicySchema::CheckNode(const Json::Value& rawNode, const Json::Value& value, const std::string& key,
                             std::vector<ConfigProblem>& problems, int depth) const {
    const Json::Value& node = Resolve(rawNode);
    if (depth > kMaxDepth || !node.isObject()) {
        return;
    }
    const std::string type = node["type"].asString();
    const auto wrong = [&](const std::string& expected) {
        problems.push_back({ShownKey(key), "must be " + expected + ", not " + TypeName(value)});
    };
    if (type == "object") {
        if (!value.isObject()) {
            wrong("an object");
            return;
        }
        CheckObject(node, value, key, problems, depth);
    } else if (type == "boolean") {
        if (!value.isBool()) {
            wrong("true or false");
        }
    } else if (type == "integer") {
        if (!value.isInt64()) {
            wrong("an integer");
            return;
        }
        const Json::Int64 number = value.asInt64();
        if ((node.isMember("min") && number < node["min"].asInt64()) ||
            (node.isMember("max") && number > node["max"].asInt64())) {
            problems.push_back(
                {ShownKey(key), std::to_string(number) + " is out of range (" +
                                    (node.isMember("min") ? node["min"].asString() : "") + ".." +
                                    (node.isMember("max") ? node["max"].asString() : "") + ")"});
        }
    } else if (type == "scalar") {
        // Lists of names take each element as text, numbers and booleans included.
        if (!value.isString() && !value.isNumeric() && !value.isBool()) {
            wrong("a string, number or boolean");
        }
    } else if (type == "string" || type == "ipv4") {
        if (!value.isString()) {
            wrong(type == "ipv4" ? "a dotted IPv4 address" : "a string");
            return;
        }
        const std::string text = value.asString();
        in_addr address{};
        if (type == "ipv4" && ::inet_pton(AF_INET, text.c_str(), &address) != 1) {
            problems.push_back({ShownKey(key), "\"" + text + "\" is not a dotted IPv4 address"});
        } else if (text.size() < node.get("min_length", 0).asUInt64() ||
                   (node.isMember("max_length") && text.size() > node["max_length"].asUInt64())) {
            problems.push_back({ShownKey(key), "a string of " + std::to_string(text.size()) +
                                                   " bytes is out of range (" +
                                                   node.get("min_length", 0).asString() + ".." +
                                                   node.get("max_length", "").asString() + ")"});
        }
    } else if (type == "array") {
        if (!value.isArray()) {
            wrong("an array");
            return;
        }
        if (node.isMember("max_items") && value.size() > node["max_items"].asUInt()) {
            problems.push_back({ShownKey(key), "more than " + node["max_items"].asString() + " elements"});
            return;
        }
        for (Json::ArrayIndex index = 0; index < value.size(); ++index) {
            CheckNode(node["items"], value[index], key + "[" + std::to_string(index) + "]", problems,
                      depth + 1);
        }
    }
}

void PolicySchema::CheckObject(const Json::Value& node, const Json::Value& value, const std::string& key,
                               std::vector<ConfigProblem>& problems, int depth) const {
    const Json::Value& members = node["members"];
    for (const std::string& name : value.getMemberNames()) {
        if (!members.isMember(name)) {
            problems.push_back({Join(key, name), "unknown key"});
            continue;
        }
        CheckNode(members[name], value[name], Join(key, name), problems, depth + 1);
    }
    const auto requireAll = [&](const Json::Value& names) {
        for (const Json::Value& name : names) {
            if (!value.isMember(name.asString())) {
                problems.push_back({Join(key, name.asString()), "missing"});
            }
        }
    };
    requireAll(node["required"]);
    if (IsEnabled(value)) {
        requireAll(node["required_if_enabled"]);
    }
}

std::vector<std::string> PolicySchemas::LoadBeside(const std::vector<std::string>& modulePaths) {
    std::vector<std::string> errors;
    for (const std::string& modulePath : modulePaths) {
        const std::string path = PolicySchema::PathBeside(modulePath);
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) {
            continue;  // a module without policies of its own
        }
        PolicySchema schema;
        std::string error;
        if (!schema.Load(path, error)) {
            errors.push_back(error);
            continue;
        }
        const std::string id = schema.GetPolicyId();
        byId_[id] = std::move(schema);
    }
    return errors;
}

const PolicySchema* PolicySchemas::Find(const std::string& id) const {
    auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : &found->second;
}

}  // namespace Agent
