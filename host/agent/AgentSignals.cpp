#include "AgentSignals.h"

#include <pthread.h>
#include <signal.h>

namespace Agent {

namespace {

sigset_t AgentSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGUSR1);
    return set;
}

}  // namespace

void AgentSignals::BlockInProcess() {
    const sigset_t set = AgentSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int AgentSignals::Wait() {
    const sigset_t set = AgentSet();
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) == 0) {
            return signal;
        }
    }
}

int AgentSignals::WaitFor(long milliseconds) {
    const sigset_t set = AgentSet();
    const struct timespec timeout = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    const int signal = sigtimedwait(&set, nullptr, &timeout);
    return signal > 0 ? signal : 0;
}

}  // namespace Agent
