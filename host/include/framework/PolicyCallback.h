#pragma once

#include <string>

#include "framework/Policy.h"

namespace Framework {

// What a module registers to receive the policies of one policy identifier.
class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;
    // featureName and content as delivered; `current` is the policy the host holds
    // for that feature (may be null). Returns a new policy (the host takes it) or null.
    virtual Policy* invoke(const std::string& featureName, const std::string& content,
                           Policy*& current) const = 0;
};

// Binds a member function of a module object.
template <class T>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Method = Policy* (T::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(T* object, Method method) : object_(object), method_(method) {}

    Policy* invoke(const std::string& featureName, const std::string& content,
                   Policy*& current) const override {
        return (object_->*method_)(featureName, content, current);
    }

private:
    T* object_;
    Method method_;
};

}  // namespace Framework
