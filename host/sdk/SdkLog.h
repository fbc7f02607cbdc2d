#pragma once

#include <string>

namespace SDK {

// A warning on the agent's logger (dropped before logging is set up). Never throws:
// the library's callers learn of the failure from the result; this line says why.
void LogSdkWarning(const std::string& text) noexcept;

}  // namespace SDK
