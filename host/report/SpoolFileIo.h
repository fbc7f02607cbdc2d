#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Agent {

// The byte-level file operations of the alert spool: whole reads and writes
// that retry on EINTR, small private files replaced atomically, and offsets
// written as decimal text.
namespace SpoolFileIo {

// An offset's decimal text (segment names, .pos files) is at most this long.
constexpr size_t kOffsetDigits = 20;

// `what: strerror(errno)`.
std::string ErrnoText(const std::string& what);
// A decimal offset of at most kOffsetDigits digits, nothing else; false otherwise.
bool ParseOffset(const std::string& text, uint64_t& out);
// Writes all of `data`; false (errno set) otherwise.
bool WriteAll(int fd, const char* data, size_t size);
// Reads up to `size` bytes at `offset`, fewer only at the end of the file; -1 on error.
ssize_t ReadAt(int fd, char* buffer, size_t size, uint64_t offset);
// Up to `limit` bytes of a small file; false when it does not exist or cannot be read.
bool ReadSmallFile(const std::string& path, size_t limit, std::string& text);
// Writes `text` to `path` beside and renamed, private.
bool ReplaceFile(const std::string& path, const std::string& text, std::string& error);
// Where the next line starts at or after `from` in the file, scanning it; `end`
// when no line end comes before it.
uint64_t NextLineStart(int fd, uint64_t from, uint64_t end);

}  // namespace SpoolFileIo

}  // namespace Agent
