#include "SessionLookup.h"

#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-login.h>
#include <utmpx.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace SDK {

namespace {

// An alarm waits for this at most when the system bus does not answer.
constexpr uint64_t kBusTimeoutUs = 1000 * 1000;

struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};
using CText = std::unique_ptr<char, FreeDeleter>;

// utmp fields are fixed arrays, NUL-terminated only when shorter than the array.
template <size_t N>
std::string FixedField(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Text of one libsystemd getter, empty when it has none.
template <typename Getter>
std::string SessionText(Getter getter, const std::string& id) {
    char* raw = nullptr;
    if (getter(id.c_str(), &raw) < 0) {
        return "";
    }
    CText text(raw);
    return text ? std::string(text.get()) : std::string();
}

// The session's start in seconds since the epoch, from logind's Timestamp property
// (libsystemd of Debian 12 has no sd_session_get_start_time); 0 when it cannot be had.
long SessionStartSeconds(const std::string& id) {
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) {
        return 0;
    }
    std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus(raw, sd_bus_flush_close_unref);
    sd_bus_set_method_call_timeout(bus.get(), kBusTimeoutUs);
    char* rawPath = nullptr;
    if (sd_bus_path_encode("/org/freedesktop/login1/session", id.c_str(), &rawPath) < 0) {
        return 0;
    }
    CText path(rawPath);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    uint64_t microseconds = 0;
    const int result = sd_bus_get_property_trivial(bus.get(), "org.freedesktop.login1", path.get(),
                                                   "org.freedesktop.login1.Session", "Timestamp", &error, 't',
                                                   &microseconds);
    sd_bus_error_free(&error);
    return result < 0 ? 0 : static_cast<long>(microseconds / 1000000);
}

// The getutxent family keeps one cursor per process.
std::mutex& UtmpMutex() {
    static std::mutex mutex;
    return mutex;
}

// Calls `visit` with each USER_PROCESS entry of `utmpFile` until it returns true.
template <typename Visit>
bool ForEachLogin(const std::string& utmpFile, Visit visit) {
    std::lock_guard<std::mutex> lock(UtmpMutex());
    if (utmpxname(utmpFile.c_str()) != 0) {
        return false;
    }
    setutxent();
    bool stopped = false;
    while (const struct utmpx* entry = getutxent()) {
        if (entry->ut_type == USER_PROCESS && visit(*entry)) {
            stopped = true;
            break;
        }
    }
    endutxent();
    return stopped;
}

}  // namespace

bool FindLogindSession(int pid, std::string& sessionId) {
    char* raw = nullptr;
    if (pid <= 0 || sd_pid_get_session(pid, &raw) < 0) {
        return false;
    }
    CText session(raw);
    if (!session) {
        return false;
    }
    sessionId = session.get();
    return true;
}

int ReadLogindSession(const std::string& id, ProcessUtils::SessionInfo& info) {
    uid_t uid = 0;
    if (id.empty() || sd_session_get_uid(id.c_str(), &uid) < 0) {
        return -1;
    }
    ProcessUtils::SessionInfo found;
    ProcessUtils::GetProcessUser(uid, found.user);
    found.host = SessionText(sd_session_get_remote_host, id);
    found.terminal = SessionText(sd_session_get_tty, id);
    found.loginTime = SessionStartSeconds(id);
    info = found;
    return 0;
}

std::set<long> ReadUtmpLoginPids(const std::string& utmpFile) {
    std::set<long> pids;
    ForEachLogin(utmpFile, [&pids](const struct utmpx& entry) {
        pids.insert(static_cast<long>(entry.ut_pid));
        return false;
    });
    return pids;
}

int FindUtmpSession(const std::string& utmpFile, long pid, ProcessUtils::SessionInfo& info) {
    if (pid <= 0) {
        return -1;
    }
    const bool found = ForEachLogin(utmpFile, [&](const struct utmpx& entry) {
        if (static_cast<long>(entry.ut_pid) != pid) {
            return false;
        }
        info.user = FixedField(entry.ut_user);
        info.host = FixedField(entry.ut_host);
        info.terminal = FixedField(entry.ut_line);
        info.loginTime = static_cast<long>(entry.ut_tv.tv_sec);
        return true;
    });
    return found ? 0 : -1;
}

}  // namespace SDK
