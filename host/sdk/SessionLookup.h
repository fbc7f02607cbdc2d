#pragma once

// Login-session records behind ProcessUtils::GetSessionInfo. Internal to libsdk
// (exported only for its tests).

#include <string>

#include "sdk/ProcessUtils.h"

namespace SDK {

constexpr const char* kLogindSessionsDir = "/run/systemd/sessions";
constexpr const char* kUtmpFile = "/var/run/utmp";

// True when logind keeps a record of session `id` in `sessionsDir`.
bool HasLogindSession(const std::string& sessionsDir, const std::string& id);

// The record of logind session `id`. 0 on success.
int ReadLogindSession(const std::string& sessionsDir, const std::string& id, ProcessUtils::SessionInfo& info);

// The USER_PROCESS entry of `utmpFile` whose session or pid is `session` (the
// session leader is the login shell or the process that logged the user in).
// 0 on success.
int FindUtmpSession(const std::string& utmpFile, long session, ProcessUtils::SessionInfo& info);

}  // namespace SDK
