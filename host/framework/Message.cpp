#include "framework/Message.h"

#include "framework/Task.h"

namespace Framework {

Message::Message() = default;

Message::Message(const std::string& name) : name_(name) {}

Message::~Message() = default;

int Message::MessageHandle(void* target) {
    if (target == nullptr) {
        return -1;
    }
    return static_cast<Task*>(target)->HandleMsg(this);
}

}  // namespace Framework
