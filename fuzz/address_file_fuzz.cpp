// The downloaded blacklisted-address file, loaded once its digest matches.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <set>
#include <string>

#include "feature_detaction/ProcDetNetstat.h"
#include "sdk/FileUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
                                    "/corvane-fuzz-pupbip-" + std::to_string(getpid());
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    std::string digest;
    SDK::FileUtils::GetFileSha256(path, digest, 0xA00000);
    static Engine::ProcDetNetstat detector;
    std::set<long> addresses;
    detector.LoadLib(path, digest, addresses);
    unlink(path.c_str());  // libFuzzer may end the process without running exit handlers
    return 0;
}
