#pragma once

#include <string>

namespace Framework {

// The framework's lines go to the agent logger; before logging is set up there
// is no logger and the lines are dropped.
class FrameworkLog {
public:
    static void Error(const std::string& text);
    static void Warning(const std::string& text);
    static void Information(const std::string& text);
    static void Debug(const std::string& text);
};

}  // namespace Framework
