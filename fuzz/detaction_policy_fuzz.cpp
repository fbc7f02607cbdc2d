// The behaviour-detection policy text, as a fleet's tooling pushes it: feature level and task level.
#include <cstddef>
#include <cstdint>
#include <string>

#include "feature_detaction/ProcDetActionFullTaskPolicy.h"
#include "feature_detaction/ProcDetActionPolicy.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Engine::ProcDetActionPolicy feature("proc_detaction_feature");
    feature.Parse(text);
    Engine::ProcDetActionFullTaskPolicy task("detaction_full_task");
    task.Parse(text);
    return 0;
}
