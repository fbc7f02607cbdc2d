#include "LibraryHandle.h"

#include <dlfcn.h>

#include <utility>

namespace Agent {

namespace {

std::string LastDlError() {
    const char* text = ::dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

}  // namespace

LibraryHandle::~LibraryHandle() {
    Close();
}

LibraryHandle::LibraryHandle(LibraryHandle&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)) {}

LibraryHandle& LibraryHandle::operator=(LibraryHandle&& other) noexcept {
    if (this != &other) {
        Close();
        handle_ = std::exchange(other.handle_, nullptr);
    }
    return *this;
}

bool LibraryHandle::Open(const std::string& path, std::string& error) {
    Close();
    // RTLD_NODELETE: objects a module created (tasks the engine still
    // references, loggers, statics) may outlive the module's handle; their code must stay mapped.
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle_ == nullptr) {
        error = LastDlError();
        return false;
    }
    return true;
}

void* LibraryHandle::Find(const char* symbol, std::string& error) const {
    if (handle_ == nullptr) {
        error = "library not open";
        return nullptr;
    }
    ::dlerror();
    void* address = ::dlsym(handle_, symbol);
    if (address == nullptr) {
        error = LastDlError();
    }
    return address;
}

void LibraryHandle::Close() {
    if (handle_ != nullptr) {
        ::dlclose(handle_);
        handle_ = nullptr;
    }
}

}  // namespace Agent
