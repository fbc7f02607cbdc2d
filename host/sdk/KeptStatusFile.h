#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace SDK {

// The status file of the last process a thread read, kept open: the handler of
// fork events reads the parent's status for every fork, and a storm of forks has
// one parent. A read at offset 0 makes procfs generate the text again, so it is
// as current as after a fresh open; the open file keeps naming the process it was
// opened for, and once that process is gone (ESRCH) the path is opened again and
// finds whichever process holds the pid by then. Files not on procfs (test
// samples) are never kept.
class KeptStatusFile {
public:
    // Reads `path` from its start into `buffer`: the bytes read (at most
    // `capacity`), or -1 when it cannot be opened or read.
    static ssize_t Read(const std::string& path, char* buffer, size_t capacity);
};

}  // namespace SDK
