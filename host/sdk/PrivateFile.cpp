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
    // Another name for the same inode may sit outside our tree: making it 0600
    // (or writing alerts into it) would reach a file that is not ours to change.
    if (info.st_nlink > 1) {
        error = Why(path, "has " + std::to_string(info.st_nlink) + " hard links; refusing it");
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

int PrivateFile::OpenDirectory(const std::string& path, std::string& error) {
    const std::string parent = ParentOf(path);
    struct stat above {};
    if (::stat(parent.c_str(), &above) != 0) {
        error = Why(parent, std::strerror(errno));
        return -1;
    }
    // In a sticky directory only its owner and we may rename or remove our entry.
    const bool sticky = (above.st_mode & S_ISVTX) != 0 && (above.st_uid == 0 || above.st_uid == ::geteuid());
    if ((above.st_mode & S_IWOTH) != 0 && !sticky) {
        error = Why(parent, "directory is writable by everyone; refusing to keep a private directory in it");
        return -1;
    }
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        error = Why(path, std::string("cannot create directory: ") + std::strerror(errno));
        return -1;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        const int failure = errno;
        struct stat link {};
        const bool symlink = ::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode);
        error = Why(path, symlink ? "is a symbolic link; refusing it" : std::strerror(failure));
        return -1;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        error = Why(path, std::strerror(errno));
    } else if (info.st_uid != ::geteuid()) {
        error = Why(path, "owned by uid " + std::to_string(info.st_uid) + ", not by uid " +
                              std::to_string(::geteuid()) + "; refusing it");
    } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error = Why(path, std::string("writable by ") +
                              ((info.st_mode & S_IWOTH) != 0 ? "everyone" : "its group") +
                              "; refusing it (files may have been planted in it)");
    } else if ((info.st_mode & 07777) != 0700 && ::fchmod(fd, 0700) != 0) {
        error = Why(path, std::string("cannot make it private (mode 0700): ") + std::strerror(errno));
    } else {
        return fd;
    }
    ::close(fd);
    return -1;
}

}  // namespace SDK
