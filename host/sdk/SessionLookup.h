#pragma once

// Login sessions behind ProcessUtils::GetProcessSessionId and GetSessionInfo. Internal
// to libsdk (exported only for its tests).
//
// Where systemd-logind runs it is asked through libsystemd. Elsewhere the session is
// the utmp USER_PROCESS entry of the login: login and sshd record their own pid in it
// and stay the ancestors of everything the user starts, while the session ids of the
// user's processes (their own setsid, the audit session) number sessions differently.

#include <set>
#include <string>

#include "sdk/ProcessUtils.h"

namespace SDK {

constexpr const char* kUtmpFile = "/var/run/utmp";

// logind's session of `pid`; false where logind does not run or has no session for it.
bool FindLogindSession(int pid, std::string& sessionId);

// logind's record of session `id`. 0 on success.
int ReadLogindSession(const std::string& id, ProcessUtils::SessionInfo& info);

// The pids that USER_PROCESS entries of `utmpFile` record.
std::set<long> ReadUtmpLoginPids(const std::string& utmpFile);

// The USER_PROCESS entry of `utmpFile` recorded by process `pid`. 0 on success.
int FindUtmpSession(const std::string& utmpFile, long pid, ProcessUtils::SessionInfo& info);

}  // namespace SDK
