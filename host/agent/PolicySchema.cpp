#include "PolicySchema.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdint>
#include <limits>

#include "JsonText.h"
#include "TextFile.h"

#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

constexpr size_t kMaxSchemaBytes = 256 * 1024;
// Deeper policies than their schema are refused before this; it only bounds a malformed schema.
constexpr int kMaxDepth = 32;
// Texts quoted in a finding are cut to this, so that one long value does not flood the log.
constexpr size_t kMaxQuoted = 64;
const char* const kUsedAsIs = "the module uses it as is";

std::string Join(const std::string& key, const std::string& member) {
    return key.empty() ? member : key + "." + member;
}

std::string ShownKey(const std::string& key) {
    return key.empty() ? "-" : key;
}

// A value as JSON on one line: 3, "", false.
std::string Shown(const Json::Value& value) {
    return SDK::JsonUtils::JsonToString(value);
}

std::string Quoted(const std::string& text) {
    return Shown(Json::Value(text.size() > kMaxQuoted ? text.substr(0, kMaxQuoted) + "..." : text));
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

// What the module does with a key it cannot use, in words.
std::string IfUnusable(const Json::Value& node) {
    if (node.isMember("unusable")) {
        return node["unusable"].asString();
    }
    if (node.isMember("default")) {
        return "the module uses its default " + Shown(node["default"]);
    }
    return "the module ignores it";
}

std::string Text(const Json::Value& node, const char* member) {
    return node.get(member, kUsedAsIs).asString();
}

// The text the module takes from a list element, as jsoncpp gives it: 5 is "5", null is "".
bool ElementText(const Json::Value& value, std::string& text) {
    if (!value.isConvertibleTo(Json::stringValue)) {
        return false;
    }
    text = value.asString();
    return true;
}

bool IsLowerHexSha256(const std::string& text) {
    if (text.size() != 64) {
        return false;
    }
    for (char c : text) {
        if (std::isdigit(static_cast<unsigned char>(c)) == 0 && (c < 'a' || c > 'f')) {
            return false;
        }
    }
    return true;
}

// The findings about one value against its schema node, each said with what the module makes of it.
class Findings {
public:
    Findings(const Json::Value& node, const Json::Value& value, const std::string& key,
             std::vector<ConfigProblem>& problems)
        : node_(node), value_(value), key_(ShownKey(key)), problems_(problems) {}

    void Add(const std::string& what) { problems_.push_back(ConfigProblem::Warning(key_, what)); }
    void WrongType(const std::string& expected) {
        Add("must be " + expected + ", not " + TypeName(value_) + "; " + IfUnusable(node_));
    }

    // The module reads integers as 32-bit unless the schema gives other bounds.
    void Integer() {
        const Json::Int64 min = node_.get("min", std::numeric_limits<int32_t>::min()).asInt64();
        const Json::Int64 max = node_.get("max", std::numeric_limits<int32_t>::max()).asInt64();
        if (!value_.isIntegral()) {
            WrongType("an integer");
            return;
        }
        if (!value_.isInt64() || value_.asInt64() < min || value_.asInt64() > max) {
            Add(Shown(value_) + " is out of range (" + std::to_string(min) + ".." + std::to_string(max) +
                "); " + IfUnusable(node_));
            return;
        }
        const Json::Int64 number = value_.asInt64();
        const Json::Value& advised = node_["advised"];
        if (advised.isMember("min") && number < advised["min"].asInt64()) {
            Add(std::to_string(number) + " is below " + Shown(advised["min"]) + "; " +
                Text(advised, "below"));
        } else if (advised.isMember("max") && number > advised["max"].asInt64()) {
            Add(std::to_string(number) + " is above " + Shown(advised["max"]) + "; " +
                Text(advised, "above"));
        }
    }

    void TextValue(const std::string& text) {
        if (node_.isMember("min_length") && text.size() < node_["min_length"].asUInt64()) {
            Add((text.empty() ? std::string("empty")
                              : Quoted(text) + " is shorter than " + Shown(node_["min_length"]) + " bytes") +
                "; " + Text(node_, "too_short"));
        } else if (node_.isMember("max_length") && text.size() > node_["max_length"].asUInt64()) {
            Add("a text of " + std::to_string(text.size()) + " bytes is longer than " +
                Shown(node_["max_length"]) + "; " + Text(node_, "too_long"));
        }
        if (node_["format"] == "sha256" && !text.empty() && !IsLowerHexSha256(text)) {
            Add(Quoted(text) + " is not a SHA-256 digest in lowercase hex (64 digits); " +
                Text(node_, "malformed"));
        }
    }

    // The module takes the element's text through inet_addr, which also reads forms such as
    // "127.1" and "0x7f000001", and skips what comes back as INADDR_NONE.
    void Address() {
        std::string text;
        if (!ElementText(value_, text)) {
            WrongType("an IPv4 address");
            return;
        }
        const in_addr_t address = ::inet_addr(text.c_str());
        if (address == INADDR_NONE) {
            Add((text == "255.255.255.255"
                     ? std::string("255.255.255.255 cannot be told from an unreadable address")
                     : Quoted(text) + " is not an IPv4 address") +
                "; " + IfUnusable(node_));
            return;
        }
        char dotted[INET_ADDRSTRLEN] = {};
        in_addr parsed{};
        parsed.s_addr = address;
        ::inet_ntop(AF_INET, &parsed, dotted, sizeof(dotted));
        if (!value_.isString() || text != dotted) {
            Add(Shown(value_).substr(0, kMaxQuoted) + " is read as " + dotted);
        }
    }

private:
    const Json::Value& node_;
    const Json::Value& value_;
    const std::string key_;
    std::vector<ConfigProblem>& problems_;
};

}  // namespace

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
        error = "cannot be read (" + error + ")";
        return false;
    }
    Json::Value root;
    if (!ParseStrictJson(text, root, error)) {
        error = "not valid JSON (" + error + ")";
        return false;
    }
    if (!root.isObject() || !root["policy_id"].isString() || !root["features"].isObject()) {
        error = "lacks \"policy_id\" or \"features\"";
        return false;
    }
    policyId_ = root["policy_id"].asString();
    features_ = root["features"];
    definitions_ = root["definitions"];
    return true;
}

Json::Value PolicySchema::Resolve(const Json::Value& node) const {
    if (!node.isObject() || !node["$ref"].isString() || !definitions_.isObject() ||
        !definitions_.isMember(node["$ref"].asString())) {
        return node;
    }
    // The referring node's own members ("default", "unusable") refine the definition.
    Json::Value resolved = definitions_[node["$ref"].asString()];
    for (const std::string& name : node.getMemberNames()) {
        if (name != "$ref" && resolved.isObject()) {
            resolved[name] = node[name];
        }
    }
    return resolved;
}

std::vector<ConfigProblem> PolicySchema::Check(const std::string& feature,
                                               const Json::Value& document) const {
    std::vector<ConfigProblem> problems;
    if (!features_.isMember(feature)) {
        std::string known;
        for (const std::string& name : features_.getMemberNames()) {
            known += (known.empty() ? "" : ", ") + name;
        }
        problems.push_back(ConfigProblem::Warning("-", "policy id " + policyId_ + " has no feature \"" +
                                                           feature + "\" (known: " + known +
                                                           "); the module ignores this policy"));
        return problems;
    }
    CheckNode(features_[feature], document, "", problems, 0);
    return problems;
}

void PolicySchema::CheckNode(const Json::Value& rawNode, const Json::Value& value, const std::string& key,
                             std::vector<ConfigProblem>& problems, int depth) const {
    const Json::Value node = Resolve(rawNode);
    if (depth > kMaxDepth || !node.isObject()) {
        return;
    }
    Findings findings(node, value, key, problems);
    if (node.get("no_effect", false).asBool()) {
        findings.Add("accepted; has no effect");
        return;
    }
    const std::string type = node["type"].asString();
    std::string text;
    if (type == "object") {
        if (!value.isObject()) {
            findings.WrongType("an object");
            return;
        }
        CheckObject(node, value, key, problems, depth);
    } else if (type == "boolean") {
        if (!value.isBool()) {
            findings.WrongType("true or false");
        }
    } else if (type == "integer") {
        findings.Integer();
    } else if (type == "string") {
        if (!value.isString()) {
            findings.WrongType("a string");
            return;
        }
        findings.TextValue(value.asString());
    } else if (type == "scalar") {
        // Lists of names take each element as text, numbers and booleans included.
        if (!ElementText(value, text)) {
            findings.WrongType("text, a number or a boolean");
            return;
        }
        findings.TextValue(text);
    } else if (type == "ipv4") {
        findings.Address();
    } else if (type == "array") {
        if (!value.isArray()) {
            findings.WrongType("an array");
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
            problems.push_back(ConfigProblem::Warning(Join(key, name), "unknown key; the module ignores it"));
            continue;
        }
        CheckNode(members[name], value[name], Join(key, name), problems, depth + 1);
    }
    const auto requireAll = [&](const Json::Value& names) {
        for (const Json::Value& name : names) {
            if (!value.isMember(name.asString())) {
                problems.push_back(ConfigProblem::Warning(
                    Join(key, name.asString()), "missing; " + IfUnusable(Resolve(members[name.asString()]))));
            }
        }
    };
    requireAll(node["required"]);
    if (IsEnabled(value)) {
        requireAll(node["required_if_enabled"]);
    }
}

std::vector<FileProblem> PolicySchemas::LoadBeside(const std::vector<std::string>& modulePaths) {
    std::vector<FileProblem> problems;
    for (const std::string& modulePath : modulePaths) {
        const std::string path = PolicySchema::PathBeside(modulePath);
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) {
            continue;  // a module without policies of its own
        }
        PolicySchema schema;
        std::string error;
        if (!schema.Load(path, error)) {
            problems.push_back({path, ConfigProblem::Warning("-", error + "; the policies of its module are "
                                                                          "checked only for JSON syntax")});
            continue;
        }
        const std::string id = schema.GetPolicyId();
        byId_[id] = std::move(schema);
    }
    return problems;
}

const PolicySchema* PolicySchemas::Find(const std::string& id) const {
    auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : &found->second;
}

}  // namespace Agent
