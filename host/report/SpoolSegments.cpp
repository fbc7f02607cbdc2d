#include "SpoolSegments.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <utility>

#include "SpoolFileIo.h"
#include "sdk/HostLog.h"
#include "sdk/PrivateFile.h"

namespace Agent {

using SpoolFileIo::ErrnoText;
using SpoolFileIo::kOffsetDigits;
using SpoolFileIo::ParseOffset;
using SpoolFileIo::ReadAt;

SpoolSegments::SpoolSegments(std::string dir, uint64_t segmentBytes)
    : dir_(std::move(dir)), segmentBytes_(segmentBytes) {}

SpoolSegments::~SpoolSegments() {
    Clear();
}

void SpoolSegments::Clear() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    segments_.clear();
    dirFd_ = -1;
}

std::string SpoolSegments::PathOf(uint64_t start) const {
    char name[32];
    std::snprintf(name, sizeof(name), "%020llu.seg", static_cast<unsigned long long>(start));
    return dir_ + "/" + name;
}

bool SpoolSegments::Load(int dirFd, std::string& error) {
    dirFd_ = dirFd;
    DIR* dir = ::fdopendir(::dup(dirFd_));
    if (dir == nullptr) {
        error = ErrnoText(dir_);
        return false;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        uint64_t start = 0;
        if (name.size() != kOffsetDigits + 4 || name.compare(kOffsetDigits, 4, ".seg") != 0 ||
            !ParseOffset(name.substr(0, kOffsetDigits), start)) {
            continue;
        }
        const std::string path = dir_ + "/" + name;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
            HOST_LOG_WARNING("alert spool: ignoring " + path + ", not a regular file");
            continue;
        }
        segments_[start] = Segment{path, static_cast<uint64_t>(info.st_size)};
    }
    ::closedir(dir);
    if (segments_.empty()) {
        return true;
    }
    // A segment reaching past the next one's start holds bytes no offset names.
    for (auto segment = segments_.begin(); std::next(segment) != segments_.end(); ++segment) {
        const uint64_t room = std::next(segment)->first - segment->first;
        if (segment->second.size > room) {
            HOST_LOG_WARNING("alert spool: " + segment->second.path + " runs " +
                             std::to_string(segment->second.size - room) +
                             " bytes into the next segment; those bytes are ignored");
            segment->second.size = room;
        }
    }
    // A crash can leave the newest segment ending in part of a line: cut it off.
    auto newest = std::prev(segments_.end());
    const int fd = SDK::PrivateFile::Open(newest->second.path, O_RDWR | O_APPEND, error);
    if (fd < 0) {
        return false;
    }
    uint64_t keep = newest->second.size;
    char buffer[4096];
    while (keep > 0) {
        const size_t chunk = static_cast<size_t>(std::min<uint64_t>(keep, sizeof(buffer)));
        const ssize_t got = ReadAt(fd, buffer, chunk, keep - chunk);
        if (got != static_cast<ssize_t>(chunk)) {
            break;
        }
        const void* newline = ::memrchr(buffer, '\n', chunk);
        if (newline != nullptr) {
            keep -= chunk - static_cast<size_t>(static_cast<const char*>(newline) - buffer) - 1;
            break;
        }
        keep -= chunk;
    }
    if (keep != newest->second.size) {
        HOST_LOG_WARNING("alert spool: cutting " + std::to_string(newest->second.size - keep) +
                         " bytes of a half-written line from " + newest->second.path);
        if (::ftruncate(fd, static_cast<off_t>(keep)) != 0) {
            error = ErrnoText("cannot repair " + newest->second.path);
            ::close(fd);
            return false;
        }
        newest->second.size = keep;
    }
    end_ = newest->first + keep;
    bytes_ = 0;
    for (const auto& segment : segments_) {
        bytes_ += segment.second.size;
    }
    if (keep < segmentBytes_) {
        fd_ = fd;  // keep appending to it
    } else {
        ::close(fd);
    }
    return true;
}

bool SpoolSegments::Start(std::string& error) {
    const std::string path = PathOf(end_);
    const int fd = SDK::PrivateFile::Open(path, O_WRONLY | O_APPEND | O_CREAT | O_TRUNC, error);
    if (fd < 0) {
        return false;
    }
    // The new name must survive a crash too, or its alerts are unreachable.
    if (dirFd_ >= 0) {
        ::fsync(dirFd_);
    }
    fd_ = fd;
    segments_[end_] = Segment{path, 0};
    return true;
}

bool SpoolSegments::NewestIsIntact() {
    const Segment& newest = std::prev(segments_.end())->second;
    struct stat info {};
    if (::fstat(fd_, &info) == 0 && info.st_nlink > 0 && static_cast<uint64_t>(info.st_size) == newest.size) {
        return true;
    }
    // Appending now would put lines where no offset of ours points: the
    // readers meet the damage; new lines go to a segment of their own.
    HOST_LOG_ERROR("alert spool: " + newest.path + " was changed behind the spool's back (" +
                   (info.st_nlink == 0 ? std::string("removed")
                                       : "size " + std::to_string(info.st_size) + ", expected " +
                                             std::to_string(newest.size)) +
                   "); new alerts go to a new segment");
    ::close(fd_);
    fd_ = -1;
    return false;
}

bool SpoolSegments::Append(const std::string& batch, std::string& error) {
    if (!((fd_ >= 0 && NewestIsIntact()) || Start(error))) {
        return false;
    }
    Segment& segment = std::prev(segments_.end())->second;
    if (!SpoolFileIo::WriteAll(fd_, batch.data(), batch.size()) || ::fdatasync(fd_) != 0) {
        error = ErrnoText("cannot write " + segment.path);
        // Take back what part of the batch got in, so the segment holds whole lines only.
        if (::ftruncate(fd_, static_cast<off_t>(segment.size)) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
        return false;
    }
    segment.size += batch.size();
    end_ += batch.size();
    bytes_ += batch.size();
    if (segment.size >= segmentBytes_) {
        ::close(fd_);
        fd_ = -1;
    }
    return true;
}

void SpoolSegments::Forget(uint64_t start, bool unlink) {
    const auto segment = segments_.find(start);
    if (segment == segments_.end()) {
        return;
    }
    if (unlink) {
        ::unlink(segment->second.path.c_str());
    }
    if (std::next(segment) == segments_.end() && fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    bytes_ -= segment->second.size;
    segments_.erase(segment);
}

uint64_t SpoolSegments::CountLinesFrom(const Segment& segment, uint64_t start, uint64_t from) const {
    const int fd = ::open(segment.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return 0;
    }
    uint64_t count = 0;
    char buffer[65536];
    for (uint64_t at = from > start ? from - start : 0; at < segment.size;) {
        const ssize_t got = ReadAt(fd, buffer, sizeof(buffer), at);
        if (got <= 0) {
            break;
        }
        count += static_cast<uint64_t>(std::count(buffer, buffer + got, '\n'));
        at += static_cast<uint64_t>(got);
    }
    ::close(fd);
    return count;
}

}  // namespace Agent
