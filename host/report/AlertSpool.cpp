#include "AlertSpool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "sdk/HostLog.h"
#include "sdk/PrivateFile.h"

namespace Agent {

namespace {

constexpr size_t kSegmentNameDigits = 20;
// A line is at most this long (the report task refuses longer bodies), so a
// read of this much past an offset always ends a line.
constexpr size_t kMaxLine = 1u << 20;

std::string ErrnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool ParseOffset(const std::string& text, uint64_t& out) {
    if (text.empty() || text.size() > kSegmentNameDigits) {
        return false;
    }
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    out = value;
    return true;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            if (written == 0) {
                errno = EIO;
            }
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

ssize_t ReadAt(int fd, char* buffer, size_t size, uint64_t offset) {
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd, buffer + got, size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

}  // namespace

AlertSpool::AlertSpool(std::string dir, uint64_t maxBytes)
    : dir_(std::move(dir)),
      maxBytes_(maxBytes),
      // Eight segments or so: eviction frees space in steps of about an eighth.
      segmentBytes_(std::clamp<uint64_t>(maxBytes / 8, 64u * 1024, 64u * 1024 * 1024)) {}

AlertSpool::~AlertSpool() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    if (dirFd_ >= 0) {
        ::close(dirFd_);
    }
}

std::string AlertSpool::SegmentPath(uint64_t start) const {
    char name[32];
    std::snprintf(name, sizeof(name), "%020llu.seg", static_cast<unsigned long long>(start));
    return dir_ + "/" + name;
}

bool AlertSpool::Open(std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!SDK::PrivateFile::MakeDirectory(dir_, 0700, error)) {
        return false;
    }
    dirFd_ = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (dirFd_ < 0) {
        error = ErrnoText(dir_);
        return false;
    }
    return LoadSegments(error);
}

bool AlertSpool::LoadSegments(std::string& error) {
    DIR* dir = ::opendir(dir_.c_str());
    if (dir == nullptr) {
        error = ErrnoText(dir_);
        return false;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        uint64_t start = 0;
        if (name.size() != kSegmentNameDigits + 4 || name.compare(kSegmentNameDigits, 4, ".seg") != 0 ||
            !ParseOffset(name.substr(0, kSegmentNameDigits), start)) {
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

bool AlertSpool::StartSegment(std::string& error) {
    const std::string path = SegmentPath(end_);
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

bool AlertSpool::Append(const std::vector<std::string>& lines) {
    if (lines.empty()) {
        return true;
    }
    std::string batch;
    for (const std::string& line : lines) {
        batch += line;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    std::string error;
    bool stored = fd_ >= 0 || StartSegment(error);
    if (stored) {
        Segment& segment = std::prev(segments_.end())->second;
        stored = WriteAll(fd_, batch.data(), batch.size()) && ::fdatasync(fd_) == 0;
        if (!stored) {
            error = ErrnoText("cannot write " + segment.path);
            // Take back what part of the batch got in, so the segment holds whole lines only.
            if (::ftruncate(fd_, static_cast<off_t>(segment.size)) != 0) {
                ::close(fd_);
                fd_ = -1;
            }
        } else {
            segment.size += batch.size();
            end_ += batch.size();
            bytes_ += batch.size();
            if (segment.size >= segmentBytes_) {
                ::close(fd_);
                fd_ = -1;
            }
        }
    }
    if (!stored) {
        if (fullInEpisode_ == 0) {
            HOST_LOG_ERROR("alert spool " + dir_ + " cannot take alerts (" + error +
                           "); dropping new alerts until it can");
        }
        fullInEpisode_ += lines.size();
        droppedFull_ += lines.size();
        return false;
    }
    if (fullInEpisode_ > 0) {
        HOST_LOG_ERROR("alert spool " + dir_ + " takes alerts again; " + std::to_string(fullInEpisode_) +
                       " alerts were dropped while it could not");
        fullInEpisode_ = 0;
    }
    RemoveDelivered();
    EvictOverLimit();
    lock.unlock();
    appended_.notify_all();
    return true;
}

uint64_t AlertSpool::MinCursor() const {
    uint64_t lowest = end_;
    for (const auto& cursor : cursors_) {
        lowest = std::min(lowest, cursor.second);
    }
    return lowest;
}

void AlertSpool::RemoveDelivered() {
    const uint64_t lowest = MinCursor();
    // The newest segment stays: its name keeps the end offset across a restart.
    while (segments_.size() > 1) {
        const auto oldest = segments_.begin();
        if (oldest->first + oldest->second.size > lowest) {
            break;
        }
        ::unlink(oldest->second.path.c_str());
        bytes_ -= oldest->second.size;
        segments_.erase(oldest);
    }
}

uint64_t AlertSpool::CountLinesFrom(const Segment& segment, uint64_t start, uint64_t from) const {
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

void AlertSpool::EvictOverLimit() {
    while (bytes_.load() > maxBytes_ && segments_.size() > 1) {
        const auto oldest = segments_.begin();
        const uint64_t lost = CountLinesFrom(oldest->second, oldest->first, MinCursor());
        ::unlink(oldest->second.path.c_str());
        bytes_ -= oldest->second.size;
        segments_.erase(oldest);
        if (lost == 0) {
            continue;
        }
        if (evictedInEpisode_ == 0) {
            HOST_LOG_ERROR("alert spool " + dir_ + " is full (max_bytes " + std::to_string(maxBytes_) +
                           "): dropping the oldest alerts that a sink has not taken yet");
        }
        evictedInEpisode_ += lost;
        droppedEvicted_ += lost;
    }
}

uint64_t AlertSpool::Read(uint64_t& offset, size_t maxLines, size_t maxBytes,
                          std::vector<std::string>& lines) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string path;
        uint64_t start = 0;
        uint64_t size = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (segments_.empty()) {
                return offset;
            }
            offset = std::max(offset, segments_.begin()->first);
            auto segment = std::prev(segments_.upper_bound(offset));
            if (offset >= segment->first + segment->second.size) {
                const auto next = std::next(segment);
                if (next == segments_.end()) {
                    return offset;
                }
                segment = next;
                offset = segment->first;
            }
            path = segment->second.path;
            start = segment->first;
            size = segment->second.size;
        }
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            continue;  // removed meanwhile (evicted): look again
        }
        const uint64_t left = start + size - offset;
        std::string text(static_cast<size_t>(std::min<uint64_t>(left, std::max(maxBytes, kMaxLine))), '\0');
        const ssize_t got = ReadAt(fd, text.data(), text.size(), offset - start);
        ::close(fd);
        if (got < 0) {
            HOST_LOG_ERROR(ErrnoText("alert spool: cannot read " + path));
            return offset;
        }
        text.resize(static_cast<size_t>(got));
        size_t at = 0;
        while (lines.size() < maxLines && at < text.size()) {
            const size_t newline = text.find('\n', at);
            if (newline == std::string::npos || (at > 0 && newline + 1 > maxBytes)) {
                break;
            }
            lines.push_back(text.substr(at, newline + 1 - at));
            at = newline + 1;
        }
        return offset + at;
    }
    return offset;
}

bool AlertSpool::WaitForLines(uint64_t offset, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return appended_.wait_for(lock, timeout, [&] { return end_ > offset; });
}

void AlertSpool::WakeAll() {
    appended_.notify_all();
}

uint64_t AlertSpool::GetEnd() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return end_;
}

uint64_t AlertSpool::LoadCursor(const std::string& sink) {
    const std::string path = dir_ + "/" + sink + ".pos";
    char text[32] = {};
    ssize_t got = -1;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) {
        got = ::read(fd, text, sizeof(text) - 1);  // an offset is at most 20 digits
        ::close(fd);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    uint64_t offset = end_;
    if (fd < 0) {
        // First run of this sink: it starts at the end; save that at once so a
        // crash before its first delivery does not move it past what came since.
        lock.unlock();
        std::string error;
        if (!SaveCursor(sink, offset, error)) {
            HOST_LOG_ERROR("alert spool: " + error);
        }
        return offset;
    }
    std::string digits(text, got > 0 ? static_cast<size_t>(got) : 0);
    while (!digits.empty() && digits.back() == '\n') {
        digits.pop_back();
    }
    if (!ParseOffset(digits, offset)) {
        // Unreadable: deliver again all we still have rather than lose any.
        offset = segments_.empty() ? end_ : segments_.begin()->first;
        HOST_LOG_WARNING("alert spool: " + path + " is unreadable; " + sink +
                         " starts again from the oldest spooled alert");
    }
    offset = std::min(offset, end_);
    cursors_[sink] = offset;
    return offset;
}

bool AlertSpool::SaveCursor(const std::string& sink, uint64_t offset, std::string& error) {
    const std::string path = dir_ + "/" + sink + ".pos";
    const std::string temp = path + ".tmp";
    // Not synced: a lost update only delivers some alerts again, and "event_id" tells them apart.
    const int fd = SDK::PrivateFile::Open(temp, O_WRONLY | O_CREAT | O_TRUNC, error);
    if (fd < 0) {
        return false;
    }
    const std::string text = std::to_string(offset) + "\n";
    const bool written = WriteAll(fd, text.data(), text.size());
    ::close(fd);
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
        error = ErrnoText("cannot save " + path);
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    cursors_[sink] = offset;
    if (evictedInEpisode_ > 0 && !segments_.empty() && MinCursor() >= segments_.begin()->first) {
        HOST_LOG_ERROR("alert spool " + dir_ + ": every sink caught up; " +
                       std::to_string(evictedInEpisode_) + " alerts were dropped while it was full");
        evictedInEpisode_ = 0;
    }
    return true;
}

}  // namespace Agent
