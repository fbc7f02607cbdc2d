#include "SessionLookup.h"

#include <string.h>
#include <sys/stat.h>
#include <utmpx.h>

#include <mutex>

#include "ProcParsers.h"
#include "sdk/FileUtils.h"

namespace SDK {

namespace {

constexpr long kSessionFileLimit = 64 * 1024;

// utmp fields are fixed arrays, NUL-terminated only when shorter than the array.
template <size_t N>
std::string FixedField(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

bool IsSafeSessionName(const std::string& id) {
    return !id.empty() && id.find('/') == std::string::npos && id != "." && id != "..";
}

}  // namespace

bool HasLogindSession(const std::string& sessionsDir, const std::string& id) {
    struct stat st {};
    return IsSafeSessionName(id) && stat((sessionsDir + "/" + id).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int ReadLogindSession(const std::string& sessionsDir, const std::string& id,
                      ProcessUtils::SessionInfo& info) {
    if (!IsSafeSessionName(id)) {
        return -1;
    }
    std::string text;
    if (FileUtils::ReadFile(sessionsDir + "/" + id, text, kSessionFileLimit) != 0) {
        return -1;
    }
    return ParseLogindSessionText(text, info) ? 0 : -1;
}

int FindUtmpSession(const std::string& utmpFile, long session, ProcessUtils::SessionInfo& info) {
    if (session <= 0) {
        return -1;
    }
    // The getutxent family keeps one cursor per process.
    static std::mutex utmpMutex;
    std::lock_guard<std::mutex> lock(utmpMutex);
    if (utmpxname(utmpFile.c_str()) != 0) {
        return -1;
    }
    setutxent();
    int result = -1;
    while (const struct utmpx* entry = getutxent()) {
        if (entry->ut_type != USER_PROCESS || (static_cast<long>(entry->ut_session) != session &&
                                               static_cast<long>(entry->ut_pid) != session)) {
            continue;
        }
        info.user = FixedField(entry->ut_user);
        info.host = FixedField(entry->ut_host);
        info.terminal = FixedField(entry->ut_line);
        info.loginTime = static_cast<long>(entry->ut_tv.tv_sec);
        result = 0;
        break;
    }
    endutxent();
    return result;
}

}  // namespace SDK
