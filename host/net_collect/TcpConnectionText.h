#pragma once

#include <string>

#include "collect/NetProcsFullTask.h"

namespace Engine {

// The printable form of a connection: "127.0.0.1:5000 -> 127.0.0.2:80 ESTABLISHED".
class TcpConnectionText {
public:
    static std::string Format(const NetProcsMessage::netProcInfo& connection);
    // The kernel's name of a TCP state number ("ESTABLISHED", "LISTEN", ...), or "UNKNOWN".
    static const char* StateName(int state);
};

}  // namespace Engine
