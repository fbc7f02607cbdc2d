// sock_diag netlink answers (inet_diag dumps).
#include <cstddef>
#include <cstdint>

#include "SockDiagDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Engine::NetProcsFullTask::NetMap table;
    Engine::SockDiagDecoder::Decode(data, size, table);
    return 0;
}
