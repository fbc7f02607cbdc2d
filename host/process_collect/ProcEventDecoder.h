#pragma once

#include <cstddef>
#include <vector>

#include "ProcEvent.h"

namespace Engine {

// Decodes what one recv() from a NETLINK_CONNECTOR socket returned: netlink
// messages, each a connector message carrying a struct proc_event. Pure, so it
// can be fed synthetic buffers; nothing is assumed about the buffer's alignment.
class ProcEventDecoder {
public:
    struct Result {
        size_t events = 0;     // appended to the output
        size_t malformed = 0;  // messages too short, foreign or truncated, skipped
    };

    static Result Decode(const void* data, size_t length, std::vector<ProcEvent>& out);
};

}  // namespace Engine
