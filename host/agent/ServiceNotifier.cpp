#include "ServiceNotifier.h"

#include <systemd/sd-daemon.h>
#include <time.h>

namespace Agent {

namespace {

void Notify(const std::string& state) {
    // Errors are not actionable: systemd then simply does not hear from us.
    ::sd_notify(0, state.c_str());
}

}  // namespace

void ServiceNotifier::Ready(const std::string& status) {
    Notify("READY=1\nSTATUS=" + status);
}

void ServiceNotifier::Reloading() {
    // MONOTONIC_USEC lets a newer systemd tell this reload from an earlier one.
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t micros =
        static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
    Notify("RELOADING=1\nSTATUS=reloading settings and policies\nMONOTONIC_USEC=" + std::to_string(micros));
}

void ServiceNotifier::Stopping() {
    Notify("STOPPING=1\nSTATUS=stopping");
}

void ServiceNotifier::Status(const std::string& status) {
    Notify("STATUS=" + status);
}

void ServiceNotifier::Heartbeat() {
    Notify("WATCHDOG=1");
}

uint64_t ServiceNotifier::WatchdogMicros() {
    uint64_t micros = 0;
    return ::sd_watchdog_enabled(0, &micros) > 0 ? micros : 0;
}

}  // namespace Agent
