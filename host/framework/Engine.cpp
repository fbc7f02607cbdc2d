// Engine: the task registry and the task threads.
#include "framework/Engine.h"

#include <algorithm>
#include <atomic>
#include <set>
#include <system_error>

#include "EngineEntry.h"
#include "PolicyTree.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "sdk/HostLog.h"

namespace Framework {

namespace {

std::atomic<Engine*> g_engine{nullptr};

}  // namespace

Engine::Engine() {
    g_engine.store(this);
}

Engine::~Engine() {
    StopAll();
    policies_.clear();
    Engine* self = this;
    g_engine.compare_exchange_strong(self, nullptr);
}

Engine* Engine::Instance() {
    return g_engine.load();
}

int Engine::main(const std::vector<std::string>& /*args*/) {
    return EXIT_OK;
}

Task* Engine::FindTask(const std::string& taskName) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    auto found = tasks_.find(taskName);
    if (found == tasks_.end() || found->second->stopping) {
        return nullptr;
    }
    return found->second->task.get();
}

std::vector<std::string> Engine::GetTaskNames() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    std::vector<std::string> names;
    for (const auto& entry : tasks_) {
        if (!entry.second->stopping) {
            names.push_back(entry.first);
        }
    }
    return names;
}

void Engine::OnPeriodicRunEnded(const Task& /*task*/) {}

std::vector<Engine::TaskStatus> Engine::GetTaskStatus() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    std::vector<TaskStatus> statuses;
    for (const auto& entry : tasks_) {
        if (entry.second->stopping) {
            continue;
        }
        const Task& task = *entry.second->task;
        TaskStatus status;
        status.name = entry.first;
        status.system = entry.second->system;
        status.periodic = task.GetTaskType() == TaskCondition::TASK_TYPE_PERIODIC;
        status.intervalSeconds = task.GetTaskCondition().GetTaskCondition().repeatInterval;
        status.lastProgressMs = task.GetLastProgressMs();
        status.completedRuns = task.GetCompletedRuns();
        statuses.push_back(status);
    }
    return statuses;
}

int Engine::RegisterTask(Module* owner, Task* task, bool system) {
    if (task == nullptr) {
        HOST_LOG_ERROR("cannot register a null task");
        return -1;
    }
    const std::string& name = task->GetTaskName();
    if (!task->IsTaskEnabled()) {
        HOST_LOG_ERROR("task " + name + " is disabled, not registered");
        return -1;
    }
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (tasks_.count(name) != 0) {
        HOST_LOG_ERROR("task " + name + " is already registered");
        return -1;
    }
    auto entry = std::make_unique<Entry>();
    entry->owner = owner;
    entry->task = Poco::AutoPtr<Task>(task, true);
    entry->system = system;
    Entry& registered = *entry;
    tasks_.emplace(name, std::move(entry));
    if (deliveryDepth_ > 0) {
        // Started once the delivery has dispatched its policies, so that Init sees them.
        pendingStarts_.push_back(name);
        return 0;
    }
    if (!StartTask(registered)) {
        tasks_.erase(name);
        return -1;
    }
    return 0;
}

bool Engine::StartTask(Entry& entry) {
    Task& task = *entry.task;
    // A task that stopped itself (unregistered from its own thread) is reset only now.
    if (task.IsStopRequested() && task.state() == Poco::Task::TASK_FINISHED) {
        task.PrepareRestart();
    }
    AttachStoredPolicies(task);
    try {
        Poco::AutoPtr<Task> running(entry.task);
        entry.thread = std::thread([running]() mutable { running->Execute(); });
    } catch (const std::system_error& e) {
        HOST_LOG_ERROR("task " + task.GetTaskName() + ": cannot start its thread: " + e.what());
        return false;
    }
    HOST_LOG_INFO("task " + task.GetTaskName() + " started");
    return true;
}

void Engine::StartPendingTasks() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (deliveryDepth_ > 0) {
        return;
    }
    std::vector<std::string> names;
    names.swap(pendingStarts_);
    for (const std::string& name : names) {
        auto found = tasks_.find(name);
        if (found == tasks_.end() || found->second->stopping || found->second->thread.joinable()) {
            continue;
        }
        if (!StartTask(*found->second)) {
            tasks_.erase(found);
        }
    }
}

int Engine::UnRegisterTask(const std::string& taskName) {
    Entry* entry = nullptr;
    {
        std::unique_lock<std::recursive_mutex> lock(mutex_);
        auto found = tasks_.find(taskName);
        if (found == tasks_.end()) {
            return 0;
        }
        entry = found->second.get();
        if (entry->stopping) {
            // Someone else is stopping it; return only once it is gone, as the caller expects.
            if (entry->thread.get_id() != std::this_thread::get_id()) {
                stopped_.wait(lock, [this, &taskName, entry] {
                    auto current = tasks_.find(taskName);
                    return current == tasks_.end() || current->second.get() != entry;
                });
            }
            return 0;
        }
        entry->stopping = true;
        pendingStarts_.erase(std::remove(pendingStarts_.begin(), pendingStarts_.end(), taskName),
                             pendingStarts_.end());
    }
    StopTask(*entry);
    std::unique_ptr<Entry> removed;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        auto found = tasks_.find(taskName);
        removed = std::move(found->second);
        tasks_.erase(found);
    }
    stopped_.notify_all();
    HOST_LOG_INFO("task " + taskName + " stopped");
    return 0;
}

void Engine::StopTask(Entry& entry) {
    Task& task = *entry.task;
    task.cancel();
    if (entry.thread.joinable()) {
        if (entry.thread.get_id() == std::this_thread::get_id()) {
            // Cannot join ourselves: the task finishes (and runs UnInit) once its code returns.
            HOST_LOG_WARNING("task " + task.GetTaskName() + " unregistered itself; it stops on return");
            entry.thread.detach();
            return;
        }
        entry.thread.join();
    }
    task.PrepareRestart();
    // Unregistered tasks are not told when a policy is replaced, so they must not keep one.
    std::set<const Policy*> stored;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        for (const auto& policy : policies_) {
            PolicyTree::Collect(policy.second.get(), stored);
        }
    }
    task.DetachPolicies(stored);
}

void Engine::UnRegisterModuleTasks(const Module* owner) {
    std::vector<std::string> names;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        for (const auto& entry : tasks_) {
            if (entry.second->owner == owner) {
                names.push_back(entry.first);
            }
        }
    }
    for (const std::string& name : names) {
        UnRegisterTask(name);
    }
}

void Engine::StopAll() {
    for (;;) {
        std::vector<std::string> plugins;
        std::vector<std::string> systems;
        {
            std::lock_guard<std::recursive_mutex> lock(mutex_);
            for (const auto& entry : tasks_) {
                (entry.second->system ? systems : plugins).push_back(entry.first);
            }
        }
        if (plugins.empty() && systems.empty()) {
            return;
        }
        // Host tasks serve the plug-ins (reports, process data), so they go last.
        for (const std::string& name : plugins) {
            UnRegisterTask(name);
        }
        if (plugins.empty()) {
            for (const std::string& name : systems) {
                UnRegisterTask(name);
            }
        }
    }
}

}  // namespace Framework
