#pragma once

#include <string>

namespace SDK {

class ExecuteCmdUtils {
public:
    // Runs `command` through /bin/sh -c, collects at most `maxOutput` bytes of its
    // standard output (the rest is discarded) and waits at most `timeoutSeconds`
    // (the command is killed then). Returns its exit status, or -1 when it could
    // not be run, was killed or timed out.
    static int ExecuteCmd(const std::string& command, std::string& output, unsigned long maxOutput,
                          int timeoutSeconds = 10);
};

}  // namespace SDK
