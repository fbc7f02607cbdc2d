#pragma once

#include <string>

namespace Framework {

// Base of all policies. A policy is built by a module from the text the host
// delivers, returned to the host (which owns it from then on) and dispatched
// by the host to the tasks it concerns.
class Policy {
public:
    static constexpr int kDefaultKind = 6;

    explicit Policy(const std::string& name);
    virtual ~Policy();

    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    const std::string& GetName() const { return name_; }

    // An integer kind that modules may use to tag their policies (6 unless set).
    int GetKind() const { return kind_; }
    void SetKind(int kind) { kind_ = kind; }

    // One-byte marker, false on construction. A module sets it on the host's
    // current policy when a newer text for the same feature arrives ("superseded").
    bool IsMarked() const { return marked_; }
    void SetMarked(bool marked) { marked_ = marked; }

    // Parses the policy text; true on success.
    virtual bool Parse(const std::string& content);

    // Hands the policy to the tasks it concerns; `parent` is the enclosing policy
    // (null at the root). The base does nothing. Returns the number of tasks reached.
    virtual int Dispatch(Policy* parent);

    // Whether a new text differs from the old in a way that needs a refresh.
    virtual bool PolicyChanged(const std::string& oldContent, const std::string& newContent);

private:
    std::string name_;
    int kind_ = kDefaultKind;
    bool marked_ = false;
};

}  // namespace Framework
