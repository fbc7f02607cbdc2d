#pragma once

#include <cstdint>
#include <string>

namespace Agent {

// The agent's side of systemd's notify protocol (sd_notify). Every call is a
// no-op when the agent was not started by systemd (no NOTIFY_SOCKET).
class ServiceNotifier {
public:
    static void Ready(const std::string& status);
    static void Reloading();
    static void Stopping();
    static void Status(const std::string& status);
    static void Heartbeat();
    // The watchdog interval systemd asked for (WatchdogSec=), 0 when none.
    static uint64_t WatchdogMicros();
};

}  // namespace Agent
