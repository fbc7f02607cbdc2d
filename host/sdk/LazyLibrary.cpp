#include "sdk/LazyLibrary.h"

#include <dlfcn.h>

namespace SDK {

bool LazyLibrary::Open(std::string& error) {
    handle_ = dlopen(soname_, RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* reason = dlerror();
        error = std::string("cannot load ") + soname_ + ": " + (reason != nullptr ? reason : "unknown error");
        return false;
    }
    return true;
}

void* LazyLibrary::Symbol(const char* name, std::string& error) const {
    void* symbol = handle_ != nullptr ? dlsym(handle_, name) : nullptr;
    if (symbol == nullptr) {
        error = std::string(soname_) + " has no " + name;
    }
    return symbol;
}

}  // namespace SDK
