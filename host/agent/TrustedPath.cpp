#include "TrustedPath.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "sdk/HostLog.h"

namespace Agent {

namespace {

const char* const kOverrideVariable = "CORVANE_INSECURE_DEV_TREE";

std::string ParentOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// One path itself, not what is above it.
bool CheckOne(const std::string& path, std::string& error) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (info.st_uid != 0) {
        error = path + " is owned by uid " + std::to_string(info.st_uid) + ", not by root";
        return false;
    }
    const bool sharedDir = S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0;
    if (!S_ISLNK(info.st_mode) && !sharedDir && (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        error = path + " is writable by " + ((info.st_mode & S_IWOTH) != 0 ? "everyone" : "its group") +
                " (mode " + mode + ")";
        return false;
    }
    return true;
}

// `path` and each directory above it, up to "/".
bool CheckChain(std::string path, std::string& error) {
    for (;;) {
        if (!CheckOne(path, error)) {
            return false;
        }
        if (path == "/" || path == ".") {
            return true;
        }
        path = ParentOf(path);
    }
}

}  // namespace

bool TrustedPath::InsecureOverride() {
    const char* value = std::getenv(kOverrideVariable);
    return value != nullptr && std::strcmp(value, "1") == 0;
}

bool TrustedPath::Check(const std::string& path, std::string& error) {
    if (InsecureOverride()) {
        static bool warned = false;
        if (!warned) {
            warned = true;
            HOST_CONSOLE_LOG_WARNING(std::string(kOverrideVariable) +
                                     "=1: modules, settings and policies are loaded without checking "
                                     "who owns and who may write them");
        }
        return true;
    }
    const std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), ::free);
    if (!resolved) {
        return errno == ENOENT;
    }
    // The link (if any) can be swapped by whoever may write the directory that holds it.
    char absolute[PATH_MAX];
    const std::string holder = ParentOf(path);
    if (::realpath(holder.c_str(), absolute) != nullptr && !CheckChain(absolute, error)) {
        error = "refusing " + path + ": " + error;
        return false;
    }
    if (!CheckChain(resolved.get(), error)) {
        error = "refusing " + path + ": " + error;
        return false;
    }
    return true;
}

}  // namespace Agent
