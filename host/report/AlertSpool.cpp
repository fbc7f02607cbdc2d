#include "AlertSpool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "AlertLine.h"
#include "SinkResources.h"
#include "sdk/HostLog.h"
#include "sdk/PrivateFile.h"

namespace Agent {

namespace {

constexpr size_t kSegmentNameDigits = 20;
// A line is at most this long, '\n' included (the report task refuses longer
// bodies): a longer stretch without a line end is damage.
constexpr size_t kMaxLine = 1u << 20;
constexpr size_t kMaxRecordBytes = 64 * 1024;  // <dir>/sinks
constexpr size_t kMaxLostStretches = 4096;     // remembered so each is logged once
// Segments visited by one Read at most: each visit returns lines or moves past
// something, so a long run of damage is crossed over a few calls, never spun on.
constexpr int kMaxSegmentVisits = 64;

const char* const kSinkRecord = "sinks";

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
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
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

// Up to `limit` bytes of a small file; false when it does not exist or cannot be read.
bool ReadSmallFile(const std::string& path, size_t limit, std::string& text) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return false;
    }
    text.assign(limit, '\0');
    const ssize_t got = ReadAt(fd, text.data(), text.size(), 0);
    ::close(fd);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return got >= 0;
}

// Writes `text` to `path` beside and renamed, private.
bool ReplaceFile(const std::string& path, const std::string& text, std::string& error) {
    const std::string temp = path + ".tmp";
    const int fd = SDK::PrivateFile::Open(temp, O_WRONLY | O_CREAT | O_TRUNC, error);
    if (fd < 0) {
        return false;
    }
    const bool written = WriteAll(fd, text.data(), text.size());
    ::close(fd);
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
        error = ErrnoText("cannot save " + path);
        return false;
    }
    return true;
}

// Where the next line starts at or after `from` in the segment, scanning the
// file; `end` when no line end comes before it.
uint64_t NextLineStart(int fd, uint64_t from, uint64_t end) {
    char buffer[65536];
    while (from < end) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(sizeof(buffer), end - from));
        const ssize_t got = ReadAt(fd, buffer, want, from);
        if (got <= 0) {
            return end;
        }
        if (const void* newline = std::memchr(buffer, '\n', static_cast<size_t>(got))) {
            return from + static_cast<uint64_t>(static_cast<const char*>(newline) - buffer) + 1;
        }
        from += static_cast<uint64_t>(got);
    }
    return end;
}

}  // namespace

AlertSpool::AlertSpool(std::string dir, uint64_t maxBytes)
    : dir_(std::move(dir)),
      maxBytes_(maxBytes),
      // Eight segments or so: eviction frees space in steps of about an eighth.
      segmentBytes_(std::clamp<uint64_t>(maxBytes / 8, 64u * 1024, 64u * 1024 * 1024)) {}

AlertSpool::~AlertSpool() {
    for (const int fd : {fd_, dirFd_, lockFd_}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

std::string AlertSpool::SegmentPath(uint64_t start) const {
    char name[32];
    std::snprintf(name, sizeof(name), "%020llu.seg", static_cast<unsigned long long>(start));
    return dir_ + "/" + name;
}

bool AlertSpool::CheckPlace(const std::string& dir, std::string& error) {
    struct stat info {};
    if (::lstat(dir.c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
        error = dir + (S_ISLNK(info.st_mode) ? ": is a symbolic link; refused" : ": not a directory");
        return false;
    }
    bool onKernelFs = false;
    return SinkResources::CheckWritableDirectory(dir, true, error, onKernelFs);
}

AlertSpool::OpenResult AlertSpool::Open(std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (open_) {
        return OpenResult::kOpen;
    }
    dirFd_ = SDK::PrivateFile::OpenDirectory(dir_, error);
    bool busy = false;
    if (dirFd_ >= 0 && TakeLock(error, busy) && LoadSegments(error)) {
        LoadSinkRecord();
        open_ = true;
        return OpenResult::kOpen;
    }
    for (int* fd : {&fd_, &dirFd_, &lockFd_}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
    segments_.clear();
    return busy ? OpenResult::kBusy : OpenResult::kRefused;
}

bool AlertSpool::TakeLock(std::string& error, bool& busy) {
    const std::string path = dir_ + "/lock";
    lockFd_ = SDK::PrivateFile::Open(path, O_RDWR | O_CREAT, error);
    if (lockFd_ < 0) {
        return false;
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        busy = errno == EWOULDBLOCK;
        if (!busy) {
            error = ErrnoText("cannot lock " + path);
            return false;
        }
        char text[24] = {};
        const ssize_t got = ReadAt(lockFd_, text, sizeof(text) - 1, 0);
        std::string pid(text, got > 0 ? static_cast<size_t>(got) : 0);
        pid.erase(std::min(pid.find('\n'), pid.size()));
        uint64_t number = 0;
        error = "the alert spool " + dir_ + " is in use by another corvane-agent" +
                (ParseOffset(pid, number) ? " (pid " + pid + ")" : std::string());
        return false;
    }
    // The holder's pid, for the message a second agent gives.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(lockFd_, 0) != 0 || ::pwrite(lockFd_, pid.data(), pid.size(), 0) < 0) {
        HOST_LOG_WARNING(ErrnoText("alert spool: cannot write the pid to " + path));
    }
    return true;
}

bool AlertSpool::LoadSegments(std::string& error) {
    DIR* dir = ::fdopendir(::dup(dirFd_));
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

void AlertSpool::LoadSinkRecord() {
    std::string text;
    sinkRecordFound_ = ReadSmallFile(dir_ + "/" + kSinkRecord, kMaxRecordBytes, text);
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        if (end > start) {
            knownSinks_.insert(text.substr(start, end - start));
        }
        start = end + 1;
    }
}

bool AlertSpool::SaveSinkRecord(std::string& error) {
    std::string text;
    for (const std::string& sink : knownSinks_) {
        text += sink + "\n";
    }
    if (!ReplaceFile(dir_ + "/" + kSinkRecord, text, error)) {
        return false;
    }
    sinkRecordFound_ = true;
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

bool AlertSpool::NewestIsIntact() {
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

bool AlertSpool::Append(const std::vector<std::string>& lines) {
    if (lines.empty()) {
        return true;
    }
    std::string batch;
    for (const std::string& line : lines) {
        batch += line;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    std::string error = dir_ + " is not open";
    bool stored = open_ && ((fd_ >= 0 && NewestIsIntact()) || StartSegment(error));
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

void AlertSpool::ForgetSegment(std::map<uint64_t, Segment>::iterator segment) {
    if (std::next(segment) == segments_.end() && fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    bytes_ -= segment->second.size;
    segments_.erase(segment);
    if (!segments_.empty()) {
        lost_.erase(lost_.begin(), lost_.lower_bound(segments_.begin()->first));
    }
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
        ForgetSegment(oldest);
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
        ForgetSegment(oldest);
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

void AlertSpool::NoteLoss(uint64_t from, uint64_t to, uint64_t lines, const std::string& where,
                          const std::string& what) {
    // Only what no earlier note covers: several sinks meet the same damage,
    // each from where its own position stood.
    std::vector<std::pair<uint64_t, uint64_t>> fresh;
    uint64_t at = from;
    auto known = lost_.upper_bound(from);
    if (known != lost_.begin() && std::prev(known)->second > from) {
        --known;
    }
    for (; known != lost_.end() && known->first < to; ++known) {
        if (known->first > at) {
            fresh.emplace_back(at, known->first);
        }
        at = std::max(at, known->second);
    }
    if (at < to) {
        fresh.emplace_back(at, to);
    }
    if (fresh.empty()) {
        return;
    }
    uint64_t bytes = 0;
    for (const auto& stretch : fresh) {
        lost_[stretch.first] = stretch.second;
        bytes += stretch.second - stretch.first;
    }
    while (lost_.size() > kMaxLostStretches) {
        lost_.erase(lost_.begin());
    }
    // Lines are counted when the whole stretch is new; a partly known one adds only its bytes.
    lines = bytes == to - from ? lines : 0;
    lostBytes_ += bytes;
    droppedDamaged_ += lines;
    HOST_LOG_ERROR("alert spool: " + where + " offset " + std::to_string(fresh.front().first) + ": " + what +
                   "; " + std::to_string(bytes) + " bytes" +
                   (lines > 0 ? " (" + std::to_string(lines) + " alert lines)" : std::string()) +
                   " skipped and lost");
}

bool AlertSpool::Read(uint64_t& offset, size_t maxLines, size_t maxBytes, std::vector<std::string>& lines) {
    for (int visit = 0; visit < kMaxSegmentVisits; ++visit) {
        std::string path;
        uint64_t start = 0;
        uint64_t size = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!open_) {
                return true;
            }
            if (segments_.empty()) {
                offset = std::max(offset, end_);
                return true;
            }
            offset = std::max(offset, segments_.begin()->first);
            auto segment = std::prev(segments_.upper_bound(offset));
            const uint64_t segmentEnd = segment->first + segment->second.size;
            if (offset >= segmentEnd) {
                const auto next = std::next(segment);
                const uint64_t resume = next == segments_.end() ? end_ : next->first;
                if (offset < resume) {
                    NoteLoss(segmentEnd, resume, 0, dir_,
                             "missing from the spool (a segment was removed or cut short)");
                }
                offset = std::max(offset, resume);
                if (next == segments_.end()) {
                    return true;
                }
                continue;
            }
            path = segment->second.path;
            start = segment->first;
            size = segment->second.size;
        }
        const uint64_t before = offset;
        switch (ReadSegment(start, path, size, offset, maxLines, maxBytes, lines)) {
            case Scan::kFailed:
                offset = before;
                return false;
            case Scan::kDone:
                return true;
            case Scan::kGone: {
                std::lock_guard<std::mutex> lock(mutex_);
                const auto segment = segments_.find(start);
                // Still listed: removed by someone else, not evicted by us.
                if (segment != segments_.end() && segment->second.path == path) {
                    NoteLoss(start, start + segment->second.size, 0, path, "the segment was removed");
                    ForgetSegment(segment);
                }
                break;
            }
            case Scan::kMoved:
                break;
        }
    }
    return true;
}

AlertSpool::Scan AlertSpool::ReadSegment(uint64_t start, const std::string& path, uint64_t size,
                                         uint64_t& offset, size_t maxLines, size_t maxBytes,
                                         std::vector<std::string>& lines) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (errno == ENOENT) {
            return Scan::kGone;
        }
        HOST_LOG_ERROR(ErrnoText("alert spool: cannot read " + path));
        return Scan::kFailed;
    }
    const uint64_t left = start + size - offset;
    std::string text(static_cast<size_t>(std::min<uint64_t>(left, std::max(maxBytes, kMaxLine))), '\0');
    const ssize_t got = ReadAt(fd, text.data(), text.size(), offset - start);
    if (got < 0) {
        HOST_LOG_ERROR(ErrnoText("alert spool: cannot read " + path));
        ::close(fd);
        return Scan::kFailed;
    }
    // Fewer bytes than asked: the file was cut short under us.
    const bool toSegmentEnd = static_cast<uint64_t>(got) < text.size() || text.size() == left;
    text.resize(static_cast<size_t>(got));

    uint64_t lossFrom = 0;  // damaged lines before the first good one
    uint64_t lossLines = 0;
    std::string lossWhy;
    size_t first = 0;  // where the first line returned starts
    size_t bytes = 0;
    uint64_t at = 0;  // from `offset`
    while (lines.size() < maxLines && at < left) {
        const size_t newline =
            at < text.size() ? text.find('\n', static_cast<size_t>(at)) : std::string::npos;
        uint64_t next = 0;
        bool damaged = true;
        const char* why = "not one JSON document";
        if (newline != std::string::npos) {
            next = newline + 1;
            damaged = next - at > kMaxLine || !AlertLine::IsDocument(text.data() + at, newline - at);
        } else if (toSegmentEnd) {
            next = left;
            why = at < text.size() ? "the segment ends in the middle of a line" : "the segment was cut short";
        } else if (at + kMaxLine > text.size()) {
            break;  // the line goes on past what was read (or starts there): the next read starts with it
        } else {
            next = NextLineStart(fd, offset - start + text.size(), size) - (offset - start);
            why = "longer than any alert line";
        }
        if (!damaged) {
            if (lossLines > 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                NoteLoss(offset + lossFrom, offset + at, lossLines, path, lossWhy);
                lossLines = 0;
            }
            if (lines.empty()) {
                first = static_cast<size_t>(at);
            } else if (bytes + (next - at) > maxBytes) {
                break;
            }
            lines.emplace_back(text, static_cast<size_t>(at), static_cast<size_t>(next - at));
            bytes += lines.back().size();
        } else if (!lines.empty()) {
            break;  // what came before goes out first; the next read starts at the damage
        } else if (lossLines++ == 0) {
            lossFrom = at;
            lossWhy = why;
        }
        at = next;
    }
    ::close(fd);
    if (lossLines > 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        NoteLoss(offset + lossFrom, offset + at, lossLines, path, lossWhy);
    }
    if (!lines.empty()) {
        offset += first;
        return Scan::kDone;
    }
    offset += at;
    return at > 0 ? Scan::kMoved : Scan::kDone;
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

std::string AlertSpool::CheckPosition(uint64_t offset) const {
    if (offset > end_) {
        return "points past the end of the spool (" + std::to_string(end_) + ")";
    }
    if (segments_.empty() || offset == end_) {
        return "";
    }
    const auto segment = std::prev(segments_.upper_bound(offset));
    if (offset == segment->first) {
        return "";
    }
    if (offset >= segment->first + segment->second.size) {
        return "points into a stretch missing from the spool";
    }
    char before = 0;
    const int fd = ::open(segment->second.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    const bool read = fd >= 0 && ReadAt(fd, &before, 1, offset - segment->first - 1) == 1;
    if (fd >= 0) {
        ::close(fd);
    }
    return read && before == '\n' ? "" : "does not point at the start of a line";
}

uint64_t AlertSpool::LoadCursor(const std::string& sink) {
    if (!open_) {
        return GetEnd();
    }
    const std::string path = dir_ + "/" + sink + ".pos";
    std::string text;
    const bool exists = ReadSmallFile(path, 32, text);  // an offset is at most 20 digits
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t oldest = segments_.empty() ? end_ : segments_.begin()->first;
    uint64_t offset = end_;
    std::string why;  // why the sink starts again from the oldest alert
    if (!exists) {
        // A sink we know had a position; without the record, one may have had it.
        if (knownSinks_.count(sink) != 0 || (!sinkRecordFound_ && !segments_.empty())) {
            why = "is missing";
        }
    } else {
        text.erase(std::min(text.find('\n'), text.size()));
        if (!ParseOffset(text, offset)) {
            why = "is unreadable";
        } else if (offset < oldest) {
            NoteLoss(offset, oldest, 0, path,
                     "gone before " + sink +
                         " took them (dropped while the spool was full, or removed); it resumes at " +
                         std::to_string(oldest));
            offset = oldest;
        } else {
            why = CheckPosition(offset);
        }
    }
    if (!why.empty()) {
        HOST_LOG_WARNING("alert spool: " + path + " " + why + "; " + sink +
                         " starts again from the oldest spooled alert (offset " + std::to_string(oldest) +
                         "), so it may receive again alerts it had taken");
        offset = oldest;
    }
    cursors_[sink] = offset;
    std::string error;
    if (knownSinks_.insert(sink).second && !SaveSinkRecord(error)) {
        HOST_LOG_ERROR("alert spool: " + error);
    }
    lock.unlock();
    // Saved at once, so a crash before the first delivery does not move the
    // sink past what came since.
    if ((!exists || !why.empty()) && !SaveCursor(sink, offset, error)) {
        HOST_LOG_ERROR("alert spool: " + error);
    }
    return offset;
}

bool AlertSpool::SaveCursor(const std::string& sink, uint64_t offset, std::string& error) {
    if (!open_) {
        error = dir_ + " is not open";
        return false;
    }
    // Not synced: a lost update only delivers some alerts again, and "event_id" tells them apart.
    if (!ReplaceFile(dir_ + "/" + sink + ".pos", std::to_string(offset) + "\n", error)) {
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
