#include "support/FakeProcsRealTask.h"

#include <chrono>
#include <thread>

namespace TestSupport {

FakeProcsRealTask::FakeProcsRealTask()
    : Engine::MixedTask("procs_real_task", "procs_collect_feature",
                        Framework::TaskCondition::TASK_TYPE_MESSAGE, 4096) {}

int FakeProcsRealTask::Emit(int pid, unsigned int flag,
                            const std::shared_ptr<Engine::ProcsMessage::procInfo>& record) {
    return PublishMsg(flag, std::make_shared<Engine::ProcsMessage>(pid, flag, record));
}

bool FakeProcsRealTask::WaitForSubscriptions(unsigned int flag, int count, long timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (GetSubscriptionCount(flag) < count) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace TestSupport
