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

// Each series by its one name and help text.
inline Framework::MetricCounter& ProcessesChecked(Framework::Metrics& m) {
    return m.Counter("corvane_processes_checked_total", "Processes passed through the detectors");
}
inline Framework::MetricCounter& AlertsSent(Framework::Metrics& m, const char* eventId) {
    return m.Counter("corvane_alerts_sent_total", "Alerts sent to the report task, by event class",
                     {{"event", eventId}});
}
inline Framework::MetricCounter& ProcessEvents(Framework::Metrics& m, const char* kind) {
    return m.Counter("corvane_process_events_received_total",
                     "Process events received by the privilege-escalation task, by kind", {{"kind", kind}});
}
inline Framework::MetricCounter& StringsCache(Framework::Metrics& m, bool hit) {
    return m.Counter(hit ? "corvane_strings_cache_hits_total" : "corvane_strings_cache_misses_total",
                     hit ? "Strings scans answered from the cache" : "Strings scans that read the file");
}
inline Framework::MetricGauge& BlacklistLoaded(Framework::Metrics& m) {
    return m.Gauge("corvane_blacklist_loaded", "1 when the blacklisted-address library is loaded");
}
inline Framework::MetricGauge& BlacklistAddresses(Framework::Metrics& m) {
    return m.Gauge("corvane_blacklist_addresses", "Addresses in the blacklisted-address library");
}
inline Framework::MetricCounter& BlacklistDownloads(Framework::Metrics& m, bool ok) {
    return m.Counter("corvane_blacklist_downloads_total",
                     "Downloads of the blacklisted-address library, by result",
                     {{"result", ok ? "ok" : "failed"}});
}
inline Framework::MetricGauge& BlacklistLastStatus(Framework::Metrics& m) {
    return m.Gauge("corvane_blacklist_last_download_status", "HTTP status of the last library download");
}

// Every series at 0 from the start, for each label value it can take, so that a
// rule's increase() sees the first event too.
inline void PublishZeros() noexcept {
    Publish([](Framework::Metrics& m) {
        ProcessesChecked(m);
        for (const char* event : {"procdet_0001", "procdet_0002"}) {
            AlertsSent(m, event);
        }
        for (const char* kind : {"fork", "identity", "other"}) {
            ProcessEvents(m, kind);
        }
        StringsCache(m, true);
        StringsCache(m, false);
        BlacklistLoaded(m);
        BlacklistAddresses(m);
        BlacklistDownloads(m, true);
        BlacklistDownloads(m, false);
        BlacklistLastStatus(m);
    });
}

inline void CountProcessesChecked(size_t count) noexcept {
    Publish([&](Framework::Metrics& m) { ProcessesChecked(m).Increment(static_cast<double>(count)); });
}

inline void CountAlertSent(const char* eventId) noexcept {
    Publish([&](Framework::Metrics& m) { AlertsSent(m, eventId).Increment(); });
}

inline void CountProcessEvent(const char* kind) noexcept {
    Publish([&](Framework::Metrics& m) { ProcessEvents(m, kind).Increment(); });
}

inline void CountStringsCache(bool hit) noexcept {
    Publish([&](Framework::Metrics& m) { StringsCache(m, hit).Increment(); });
}

inline void SetBlacklist(bool loaded, size_t size) noexcept {
    Publish([&](Framework::Metrics& m) {
        BlacklistLoaded(m).Set(loaded ? 1 : 0);
        BlacklistAddresses(m).Set(static_cast<double>(size));
    });
}

inline void CountBlacklistDownload(int httpStatus) noexcept {
    Publish([&](Framework::Metrics& m) {
        BlacklistDownloads(m, httpStatus == 200).Increment();
        BlacklistLastStatus(m).Set(httpStatus);
    });
}

}  // namespace ProcDetMetrics

}  // namespace Engine
