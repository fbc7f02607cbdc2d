#pragma once

#include <string>

namespace Agent {

// An open shared library (dlopen), closed when the handle goes.
class LibraryHandle {
public:
    LibraryHandle() = default;
    ~LibraryHandle();
    LibraryHandle(LibraryHandle&& other) noexcept;
    LibraryHandle& operator=(LibraryHandle&& other) noexcept;
    LibraryHandle(const LibraryHandle&) = delete;
    LibraryHandle& operator=(const LibraryHandle&) = delete;

    // Opens `path` with every symbol bound now. False with dlerror's text on failure.
    bool Open(const std::string& path, std::string& error);
    // The address of `symbol`, or null with dlerror's text.
    void* Find(const char* symbol, std::string& error) const;
    void Close();

private:
    void* handle_ = nullptr;
};

}  // namespace Agent
