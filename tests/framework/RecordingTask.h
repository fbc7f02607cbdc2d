#pragma once

#include <Poco/AutoPtr.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "framework/Task.h"

namespace FrameworkTest {

// A task that records what the framework does to it, and on which thread.
class RecordingTask : public Framework::Task {
public:
    using Hook = std::function<void(RecordingTask&)>;

    RecordingTask(const std::string& name, Framework::TaskCondition::TaskType type, unsigned int capacity = 0,
                  const std::string& feature = "test_feature")
        : Framework::Task(name, feature, type, capacity) {
        SetTaskEnabled(true);
    }

    Hook onInit, onRun, onUnInit;

    int Init() override { return Step("Init", onInit); }
    int Run() override { return Step("Run", onRun); }
    void UnInit() override { Step("UnInit", onUnInit); }
    int HandleMsg(const Framework::Message* message) override {
        Record("Msg " + message->GetName());
        return 0;
    }

    void Record(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
        threads_.insert(std::this_thread::get_id());
        changed_.notify_all();
    }
    int Count(const std::string& event) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(std::count(events_.begin(), events_.end(), event));
    }
    std::vector<std::string> Events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::set<std::thread::id> Threads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }
    // Generous: only a hang should ever reach the limit.
    bool WaitFor(const std::string& event, int count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30),
                                 [&] { return std::count(events_.begin(), events_.end(), event) >= count; });
    }

protected:
    ~RecordingTask() override = default;

private:
    int Step(const std::string& event, const Hook& hook) {
        Record(event);
        if (hook) {
            hook(*this);
        }
        return 0;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
    std::set<std::thread::id> threads_;
};

using TaskRef = Poco::AutoPtr<RecordingTask>;

// A resident Run that holds until the task is cancelled.
inline void WaitForCancel(RecordingTask& task) {
    while (!task.sleep(60000)) {
    }
}

}  // namespace FrameworkTest
