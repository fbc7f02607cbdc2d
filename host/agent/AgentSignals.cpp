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

}  // namespace Agent
