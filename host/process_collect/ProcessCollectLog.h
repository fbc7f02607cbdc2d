#pragma once

#include <string>

namespace Engine {

// Log lines of the process-collect module, under its own module logger; silent
// while the host has not set logging up.
class ProcessCollectLog {
public:
    static void Error(const std::string& text);
    static void Info(const std::string& text);
    static void Debug(const std::string& text);
};

}  // namespace Engine
