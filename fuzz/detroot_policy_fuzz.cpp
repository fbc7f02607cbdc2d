// The privilege-escalation policy text: feature level and task level.
#include <cstddef>
#include <cstdint>
#include <string>

#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "feature_detroot/ProcDetRootPolicy.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Engine::ProcDetRootPolicy feature("proc_detroot_feature");
    feature.Parse(text);
    Engine::ProcDetRootFullTaskPolicy task("detroot_full_task");
    task.Parse(text);
    return 0;
}
