// Process-connector netlink datagrams (fork, exec, uid, gid, exit events).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ProcEventDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<Engine::ProcEvent> events;
    Engine::ProcEventDecoder::Decode(data, size, events);
    return 0;
}
