#include "ProcDetModule.h"

extern "C" __attribute__((visibility("default"))) void* CreateModule() {
    return new Engine::ProcDetModule();
}
