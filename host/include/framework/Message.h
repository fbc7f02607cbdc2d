#pragma once

#include <string>

namespace Framework {

class Task;

// Base of everything that travels between tasks. A message is handed to a task
// (Task::EnqueueMsg / Task::SendDirectMsg) and handled later on that task's own
// thread, where the framework calls MessageHandle with the receiving task.
class Message {
public:
    Message();
    explicit Message(const std::string& name);
    virtual ~Message();

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    const std::string& GetName() const { return name_; }

    // Called on the receiving task's thread; `target` is that task (a Framework::Task*).
    // The default hands the message to the task's HandleMsg. Returns 0 on success.
    virtual int MessageHandle(void* target);

private:
    std::string name_;
};

}  // namespace Framework
