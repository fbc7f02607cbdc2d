#include "SpoolSegmentReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "AlertLine.h"
#include "SpoolFileIo.h"
#include "sdk/HostLog.h"

namespace Agent {

namespace SpoolSegmentReader {

using SpoolFileIo::ErrnoText;
using SpoolFileIo::NextLineStart;
using SpoolFileIo::ReadAt;

Scan Read(uint64_t start, const std::string& path, uint64_t size, uint64_t& offset, size_t maxLines,
          size_t maxBytes, std::vector<std::string>& lines, const LossNote& noteLoss) {
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
                noteLoss(offset + lossFrom, offset + at, lossLines, lossWhy);
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
        noteLoss(offset + lossFrom, offset + at, lossLines, lossWhy);
    }
    if (!lines.empty()) {
        offset += first;
        return Scan::kDone;
    }
    offset += at;
    return at > 0 ? Scan::kMoved : Scan::kDone;
}

}  // namespace SpoolSegmentReader

}  // namespace Agent
