#include "AlertSpool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "SinkResources.h"
#include "SpoolFileIo.h"
#include "SpoolSegmentReader.h"
#include "sdk/HostLog.h"
#include "sdk/PrivateFile.h"

namespace Agent {

namespace {

// Segments visited by one Read at most: each visit returns lines or moves past
// something, so a long run of damage is crossed over a few calls, never spun on.
constexpr int kMaxSegmentVisits = 64;

}  // namespace

AlertSpool::AlertSpool(std::string dir, uint64_t maxBytes)
    : dir_(std::move(dir)),
      maxBytes_(maxBytes),
      // Eight segments or so: eviction frees space in steps of about an eighth.
      segments_(dir_, std::clamp<uint64_t>(maxBytes / 8, 64u * 1024, 64u * 1024 * 1024)),
      positions_(dir_) {}

AlertSpool::~AlertSpool() {
    segments_.Clear();
    for (const int fd : {dirFd_, lockFd_}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
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
    if (dirFd_ >= 0 && TakeLock(error, busy) && segments_.Load(dirFd_, error)) {
        positions_.LoadRecord();
        open_ = true;
        return OpenResult::kOpen;
    }
    segments_.Clear();
    for (int* fd : {&dirFd_, &lockFd_}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
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
            error = SpoolFileIo::ErrnoText("cannot lock " + path);
            return false;
        }
        char text[24] = {};
        const ssize_t got = SpoolFileIo::ReadAt(lockFd_, text, sizeof(text) - 1, 0);
        std::string pid(text, got > 0 ? static_cast<size_t>(got) : 0);
        pid.erase(std::min(pid.find('\n'), pid.size()));
        uint64_t number = 0;
        error = "the alert spool " + dir_ + " is in use by another corvane-agent" +
                (SpoolFileIo::ParseOffset(pid, number) ? " (pid " + pid + ")" : std::string());
        return false;
    }
    // The holder's pid, for the message a second agent gives.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(lockFd_, 0) != 0 || ::pwrite(lockFd_, pid.data(), pid.size(), 0) < 0) {
        HOST_LOG_WARNING(SpoolFileIo::ErrnoText("alert spool: cannot write the pid to " + path));
    }
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
    std::string error = dir_ + " is not open";
    if (!open_ || !segments_.Append(batch, error)) {
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

void AlertSpool::ForgetSegment(uint64_t start, bool unlink) {
    segments_.Forget(start, unlink);
    if (!segments_.List().empty()) {
        losses_.ForgetBefore(segments_.List().begin()->first);
    }
}

void AlertSpool::RemoveDelivered() {
    const uint64_t lowest = positions_.Lowest(segments_.GetEnd());
    // The newest segment stays: its name keeps the end offset across a restart.
    while (segments_.List().size() > 1) {
        const auto oldest = segments_.List().begin();
        if (oldest->first + oldest->second.size > lowest) {
            break;
        }
        ForgetSegment(oldest->first, true);
    }
}

void AlertSpool::EvictOverLimit() {
    while (segments_.GetBytes() > maxBytes_ && segments_.List().size() > 1) {
        const auto oldest = segments_.List().begin();
        const uint64_t lost =
            segments_.CountLinesFrom(oldest->second, oldest->first, positions_.Lowest(segments_.GetEnd()));
        ForgetSegment(oldest->first, true);
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

bool AlertSpool::Read(uint64_t& offset, size_t maxLines, size_t maxBytes, std::vector<std::string>& lines) {
    using SpoolSegmentReader::Scan;
    for (int visit = 0; visit < kMaxSegmentVisits; ++visit) {
        std::string path;
        uint64_t start = 0;
        uint64_t size = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!open_) {
                return true;
            }
            const SpoolSegments::Map& segments = segments_.List();
            if (segments.empty()) {
                offset = std::max(offset, segments_.GetEnd());
                return true;
            }
            offset = std::max(offset, segments.begin()->first);
            auto segment = std::prev(segments.upper_bound(offset));
            const uint64_t segmentEnd = segment->first + segment->second.size;
            if (offset >= segmentEnd) {
                const auto next = std::next(segment);
                const uint64_t resume = next == segments.end() ? segments_.GetEnd() : next->first;
                if (offset < resume) {
                    losses_.Note(segmentEnd, resume, 0, dir_,
                                 "missing from the spool (a segment was removed or cut short)");
                }
                offset = std::max(offset, resume);
                if (next == segments.end()) {
                    return true;
                }
                continue;
            }
            path = segment->second.path;
            start = segment->first;
            size = segment->second.size;
        }
        const uint64_t before = offset;
        const auto noteLoss = [this, &path](uint64_t from, uint64_t to, uint64_t damaged,
                                            const std::string& why) {
            std::lock_guard<std::mutex> lock(mutex_);
            losses_.Note(from, to, damaged, path, why);
        };
        switch (SpoolSegmentReader::Read(start, path, size, offset, maxLines, maxBytes, lines, noteLoss)) {
            case Scan::kFailed:
                offset = before;
                return false;
            case Scan::kDone:
                return true;
            case Scan::kGone: {
                std::lock_guard<std::mutex> lock(mutex_);
                const auto segment = segments_.List().find(start);
                // Still listed: removed by someone else, not evicted by us.
                if (segment != segments_.List().end() && segment->second.path == path) {
                    losses_.Note(start, start + segment->second.size, 0, path, "the segment was removed");
                    ForgetSegment(start, false);
                }
                break;
            }
            case Scan::kMoved:
                break;
        }
    }
    return true;
}

bool AlertSpool::WaitForLines(uint64_t offset, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return appended_.wait_for(lock, timeout, [&] { return segments_.GetEnd() > offset; });
}

void AlertSpool::WakeAll() {
    appended_.notify_all();
}

uint64_t AlertSpool::GetEnd() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return segments_.GetEnd();
}

std::string AlertSpool::CheckPosition(uint64_t offset) const {
    const uint64_t end = segments_.GetEnd();
    if (offset > end) {
        return "points past the end of the spool (" + std::to_string(end) + ")";
    }
    const SpoolSegments::Map& segments = segments_.List();
    if (segments.empty() || offset == end) {
        return "";
    }
    const auto segment = std::prev(segments.upper_bound(offset));
    if (offset == segment->first) {
        return "";
    }
    if (offset >= segment->first + segment->second.size) {
        return "points into a stretch missing from the spool";
    }
    char before = 0;
    const int fd = ::open(segment->second.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    const bool read = fd >= 0 && SpoolFileIo::ReadAt(fd, &before, 1, offset - segment->first - 1) == 1;
    if (fd >= 0) {
        ::close(fd);
    }
    return read && before == '\n' ? "" : "does not point at the start of a line";
}

uint64_t AlertSpool::LoadCursor(const std::string& sink) {
    if (!open_) {
        return GetEnd();
    }
    const std::string path = positions_.PathOf(sink);
    uint64_t saved = 0;
    const SpoolPositions::Saved found = positions_.ReadSaved(sink, saved);
    std::unique_lock<std::mutex> lock(mutex_);
    const SpoolSegments::Map& segments = segments_.List();
    const uint64_t oldest = segments.empty() ? segments_.GetEnd() : segments.begin()->first;
    uint64_t offset = segments_.GetEnd();
    std::string why;  // why the sink starts again from the oldest alert
    if (found == SpoolPositions::Saved::kNone) {
        // A sink we know had a position; without the record, one may have had it.
        if (positions_.Known(sink) || (!positions_.RecordFound() && !segments.empty())) {
            why = "is missing";
        }
    } else if (found == SpoolPositions::Saved::kUnreadable) {
        why = "is unreadable";
    } else if (saved < oldest) {
        losses_.Note(saved, oldest, 0, path,
                     "gone before " + sink +
                         " took them (dropped while the spool was full, or removed); it resumes at " +
                         std::to_string(oldest));
        offset = oldest;
    } else {
        offset = saved;
        why = CheckPosition(offset);
    }
    if (!why.empty()) {
        HOST_LOG_WARNING("alert spool: " + path + " " + why + "; " + sink +
                         " starts again from the oldest spooled alert (offset " + std::to_string(oldest) +
                         "), so it may receive again alerts it had taken");
        offset = oldest;
    }
    positions_.Set(sink, offset);
    std::string error;
    if (!positions_.Remember(sink, error)) {
        HOST_LOG_ERROR("alert spool: " + error);
    }
    lock.unlock();
    // Saved at once, so a crash before the first delivery does not move the
    // sink past what came since.
    if ((found == SpoolPositions::Saved::kNone || !why.empty()) && !SaveCursor(sink, offset, error)) {
        HOST_LOG_ERROR("alert spool: " + error);
    }
    return offset;
}

bool AlertSpool::SaveCursor(const std::string& sink, uint64_t offset, std::string& error) {
    if (!open_) {
        error = dir_ + " is not open";
        return false;
    }
    if (!positions_.Save(sink, offset, error)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    positions_.Set(sink, offset);
    const SpoolSegments::Map& segments = segments_.List();
    if (evictedInEpisode_ > 0 && !segments.empty() &&
        positions_.Lowest(segments_.GetEnd()) >= segments.begin()->first) {
        HOST_LOG_ERROR("alert spool " + dir_ + ": every sink caught up; " +
                       std::to_string(evictedInEpisode_) + " alerts were dropped while it was full");
        evictedInEpisode_ = 0;
    }
    return true;
}

}  // namespace Agent
