#pragma once

#include <Poco/Util/Application.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Framework {

class Module;
class Policy;
class Task;

// The host application: holds the modules and every running task, runs each
// task on a thread of its own, and delivers policies to the modules.
// Poco::Util::Application::instance() is the engine.
class Engine : public Poco::Util::Application {
public:
    Engine();
    ~Engine() override;

    // The running engine, or null when the application is not an Engine.
    static Engine* Instance();

    // The registered task of that name, or null. The pointer stays valid while the
    // task is registered; host tasks stay registered until StopAll.
    Task* FindTask(const std::string& taskName);
    std::vector<std::string> GetTaskNames() const;

    // What the agent's watchdog and status line need to know of a registered task.
    struct TaskStatus {
        std::string name;
        bool system = false;
        bool periodic = false;
        int64_t intervalSeconds = 0;  // the repeat interval of a periodic task
        int64_t lastProgressMs = 0;   // Task::GetLastProgressMs
        unsigned long completedRuns = 0;
    };
    std::vector<TaskStatus> GetTaskStatus() const;
    // Called on a periodic task's thread each time its Run has returned, so the
    // agent can tell at once that a detection cycle ended. Must return quickly.
    virtual void OnPeriodicRunEnded(const Task& task);

    // Task registry (modules reach it through Module::RegisterTask / UnRegisterTask).
    int RegisterTask(Module* owner, Task* task, bool system);
    int UnRegisterTask(const std::string& taskName);
    // Unregisters the tasks of one module.
    void UnRegisterModuleTasks(const Module* owner);

    // Modules: the engine does not own them; AddModule makes them reachable for
    // policy delivery, RemoveModule forgets them.
    void AddModule(Module* module);
    void RemoveModule(Module* module);

    // Delivers one policy text of `id` for `featureName` to the module that
    // registered a callback for `id`: the module's callback builds the policy, the
    // engine keeps it and dispatches it to the tasks it names, then starts the
    // tasks registered during the callback. Invalid JSON is refused and the
    // previous policy stays in force. Returns 0 on success, -1 when the text is
    // not JSON, -2 when no module takes `id`.
    int DeliverPolicy(const std::string& id, const std::string& featureName, const std::string& content);
    // The text last delivered for (id, featureName), or empty.
    std::string GetPolicyText(const std::string& id, const std::string& featureName) const;

    // Stops every task: plug-in tasks first, then host (system) tasks, each cancelled,
    // joined and given UnInit. Safe to call twice.
    void StopAll();

protected:
    // Poco::Util::Application; the agent overrides main().
    int main(const std::vector<std::string>& args) override;

private:
    struct Entry;
    bool StartTask(Entry& entry);
    void StopTask(Entry& entry);
    void StartPendingTasks();
    // Points the task at the stored policies meant for it (mutex_ held).
    void AttachStoredPolicies(Task& task);
    // Makes every registered task forget the policies of `root` before it is deleted.
    void DetachFromTasks(const Policy& root);

    mutable std::recursive_mutex mutex_;
    // Signalled whenever a stopped task leaves the registry.
    std::condition_variable_any stopped_;
    // Deliveries run one at a time, outside mutex_ (callbacks may stop tasks).
    std::recursive_mutex deliveryMutex_;
    std::map<std::pair<std::string, std::string>, const Module*> policyOwners_;
    std::map<std::string, std::unique_ptr<Entry>> tasks_;
    std::vector<Module*> modules_;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<Policy>> policies_;
    std::map<std::pair<std::string, std::string>, std::string> policyTexts_;
    int deliveryDepth_ = 0;
    std::vector<std::string> pendingStarts_;
};

}  // namespace Framework
