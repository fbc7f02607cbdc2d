#pragma once

#include <cstddef>

#include "framework/Metrics.h"

namespace Engine {

// The module's health figures, published through the host's Framework::Metrics.
// Each call swallows any failure: a figure must never cost a detection.
namespace ProcDetMetrics {

template <class Fn>
inline void Publish(Fn&& fn) noexcept {
    try {
        fn(Framework::Metrics::Instance());
    } catch (...) {
    }
}

inline void CountProcessesChecked(size_t count) noexcept {
    Publish([&](Framework::Metrics& m) {
        m.Counter("corvane_processes_checked_total", "Processes passed through the detectors")
            .Increment(static_cast<double>(count));
    });
}

inline void CountAlertSent(const char* eventId) noexcept {
    Publish([&](Framework::Metrics& m) {
        m.Counter("corvane_alerts_sent_total", "Alerts sent to the report task, by event class",
                  {{"event", eventId}})
            .Increment();
    });
}

inline void CountProcessEvent(const char* kind) noexcept {
    Publish([&](Framework::Metrics& m) {
        m.Counter("corvane_process_events_received_total",
                  "Process events received by the privilege-escalation task, by kind", {{"kind", kind}})
            .Increment();
    });
}

inline void CountStringsCache(bool hit) noexcept {
    Publish([&](Framework::Metrics& m) {
        m.Counter(hit ? "corvane_strings_cache_hits_total" : "corvane_strings_cache_misses_total",
                  hit ? "Strings scans answered from the cache" : "Strings scans that read the file")
            .Increment();
    });
}

inline void SetBlacklist(bool loaded, size_t size) noexcept {
    Publish([&](Framework::Metrics& m) {
        m.Gauge("corvane_blacklist_loaded", "1 when the blacklisted-address library is loaded")
            .Set(loaded ? 1 : 0);
        m.Gauge("corvane_blacklist_addresses", "Addresses in the blacklisted-address library")
            .Set(static_cast<double>(size));
    });
}

inline void CountBlacklistDownload(int httpStatus) noexcept {
    Publish([&](Framework::Metrics& m) {
        m.Counter("corvane_blacklist_downloads_total",
                  "Downloads of the blacklisted-address library, by result",
                  {{"result", httpStatus == 200 ? "ok" : "failed"}})
            .Increment();
        m.Gauge("corvane_blacklist_last_download_status", "HTTP status of the last library download")
            .Set(httpStatus);
    });
}

}  // namespace ProcDetMetrics

}  // namespace Engine
