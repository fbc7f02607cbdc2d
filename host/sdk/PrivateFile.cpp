#include "sdk/PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace SDK {

namespace {

std::string Why(const std::string& path, const std::string& reason) {
    return path + ": " + reason;
}

std::string ParentOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool PrivateFile::CheckParent(const std::string& path, std::string& error) {
    const std::string parent = ParentOf(path);
    struct stat info {};
    if (::stat(parent.c_str(), &info) != 0) {
        error = Why(parent, std::strerror(errno));
        return false;
    }
    // Anyone who can write the directory can swap the file for a link between our checks.
    if ((info.st_mode & S_IWOTH) != 0) {
        error = Why(parent, "directory is writable by everyone; refusing to keep private files in it");
        return false;
    }
    return true;
}

int PrivateFile::Open(const std::string& path, int flags, std::string& error) {
    if (!CheckParent(path, error)) {
        return -1;
    }
    const int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = Why(path, errno == ELOOP ? "is a symbolic link; refusing to write through it"
                                         : std::string(std::strerror(errno)));
        return -1;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        error = Why(path, std::strerror(errno));
        ::close(fd);
        return -1;
    }
    if (!S_ISREG(info.st_mode)) {
        return fd;
    }
    if (info.st_uid != ::geteuid()) {
        error = Why(path, "owned by uid " + std::to_string(info.st_uid) + ", not by uid " +
                              std::to_string(::geteuid()) + "; refusing it");
        ::close(fd);
        return -1;
    }
    if ((info.st_mode & 07777) != 0600 && ::fchmod(fd, 0600) != 0) {
        error = Why(path, std::string("cannot make it private (mode 0600): ") + std::strerror(errno));
        ::close(fd);
        return -1;
    }
    return fd;
}

bool PrivateFile::MakeDirectory(const std::string& path, unsigned int mode, std::string& error) {
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
        error = Why(path, std::string("cannot create directory: ") + std::strerror(errno));
        return false;
    }
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        error = Why(path, std::strerror(errno));
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        error = Why(path, "not a directory");
        return false;
    }
    if (info.st_uid != ::geteuid()) {
        error = Why(path, "owned by uid " + std::to_string(info.st_uid) + "; refusing it");
        return false;
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0 && ::chmod(path.c_str(), mode) != 0) {
        error = Why(path, std::string("writable by others and cannot be fixed: ") + std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace SDK
