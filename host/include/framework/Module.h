#pragma once

#include <Poco/Util/Subsystem.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "framework/Policy.h"
#include "framework/PolicyCallback.h"

namespace Framework {

class Task;

// A loadable unit of the agent. A plug-in module library exports
//   extern "C" void* CreateModule();
// returning a new Module subclass; the agent owns it, calls Init, delivers
// policies through the callbacks it registered, and finally calls UnInit and
// deletes it.
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);
    ~Module() override;

    const char* name() const override;
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    const std::string& GetModuleName() const { return name_; }

    // Subclasses call the base last. Return 0 on success.
    virtual int Init();
    // Unregisters every task this module still has registered. Return 0.
    virtual int UnInit();

    // The host's entry for a policy text of `id`: invokes the callback registered
    // under `id`, or returns null when there is none.
    virtual Policy* RefreshPolicy(const std::string& id, const std::string& featureName,
                                  const std::string& content, Policy*& current);

    // Takes ownership of `callback` (also on failure). Replaces an earlier one. Returns 0.
    int RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback);
    // Releases the callback of `id`. Returns 0, or -1 when none was registered.
    int UnRegisterPolicyCallback(const std::string& id);
    bool HasPolicyCallback(const std::string& id) const;
    std::set<std::string> GetPolicyIds() const;

    // Hands `task` to the engine, which takes its own reference and runs it.
    // `system`: a host task, started before policies are delivered and stopped
    // after every other task; plug-in modules pass false. Returns 0, or -1 (logged)
    // when the task is null, disabled, or a task of that name is already registered.
    int RegisterTask(Task* task, bool system);
    // Stops (cancels, joins, UnInit) and forgets the task of that name; the object
    // itself is only released by the engine, never destroyed while the caller
    // holds a reference. Harmless when no such task is registered. Returns 0.
    int UnRegisterTask(const std::string& taskName);

private:
    std::string name_;
    mutable std::mutex mutex_;
    // Shared so that a delivery in progress keeps its callback alive across an unregistration.
    std::map<std::string, std::shared_ptr<AbstractPolicyCallback>> callbacks_;
};

}  // namespace Framework
