#pragma once

namespace Agent {

// The agent's signals are taken synchronously by the main thread: SIGHUP
// (reload the policies), SIGUSR1 (reopen the alert files, after logrotate),
// SIGTERM and SIGINT (stop).
class AgentSignals {
public:
    // Blocks the four signals in the calling thread, so every thread started
    // afterwards inherits the mask, and ignores SIGPIPE (a closed reader of
    // standard output must show up as EPIPE). Call first thing in main.
    static void BlockInProcess();
    // Waits for one of the four and returns it.
    static int Wait();
    // Waits up to `milliseconds` for one of the four; 0 when none came.
    static int WaitFor(long milliseconds);
};

}  // namespace Agent
