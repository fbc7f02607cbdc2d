#include "TcpConnectionText.h"

#include <arpa/inet.h>

namespace Engine {

namespace {

std::string Endpoint(unsigned int address, unsigned int port) {
    char text[INET_ADDRSTRLEN] = {};
    in_addr raw{};
    raw.s_addr = address;  // already in network byte order
    ::inet_ntop(AF_INET, &raw, text, sizeof text);
    return std::string(text) + ":" + std::to_string(port);
}

}  // namespace

const char* TcpConnectionText::StateName(int state) {
    static const char* const kNames[] = {"UNKNOWN",   "ESTABLISHED", "SYN_SENT",    "SYN_RECV",   "FIN_WAIT1",
                                         "FIN_WAIT2", "TIME_WAIT",   "CLOSE",       "CLOSE_WAIT", "LAST_ACK",
                                         "LISTEN",    "CLOSING",     "NEW_SYN_RECV"};
    if (state < 0 || state >= static_cast<int>(sizeof kNames / sizeof kNames[0])) {
        return kNames[0];
    }
    return kNames[state];
}

std::string TcpConnectionText::Format(const NetProcsMessage::netProcInfo& connection) {
    return Endpoint(connection.localAddr, connection.localPort) + " -> " +
           Endpoint(connection.remoteAddr, connection.remotePort) + " " + StateName(connection.state);
}

}  // namespace Engine
