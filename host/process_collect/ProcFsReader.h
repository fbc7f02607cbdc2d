#pragma once

#include <sys/types.h>

#include <climits>
#include <cstddef>
#include <string>
#include <string_view>

namespace Engine {

// One file's text in a fixed buffer; `error` is the errno of a failed read (0: read).
template <size_t N>
struct ProcFsText {
    char data[N];
    size_t size = 0;
    int error = 0;
    std::string_view View() const { return error == 0 ? std::string_view(data, size) : std::string_view(); }
};

// The files of one process, sized for what a record keeps. status is cut at
// 8 KiB (the identity and capability lines come well before that).
struct ProcFsBuffers {
    ProcFsText<2048> stat;
    ProcFsText<8192> status;
    ProcFsText<4096> cmdline;
    ProcFsText<PATH_MAX> exe;
};

// Reads the files of one pid under a /proc root into caller-provided buffers
// (meant for the stack): open/read/close and readlink, nothing else, because a
// snapshot does this thousands of times.
class ProcFsReader {
public:
    enum Part : unsigned { kStat = 1, kStatus = 2, kCmdline = 4, kExe = 8, kAll = 15 };

    explicit ProcFsReader(const std::string& procRoot);

    // Reads the `parts` of `pid` into `buffers` (each part's error is set on failure).
    // Returns false when the process is gone (its stat cannot be opened for ENOENT or ESRCH).
    bool Read(int pid, unsigned parts, ProcFsBuffers& buffers) const;

    // A whole file under the root, e.g. "stat" for the boot time; errno or 0.
    int ReadRootFile(const char* name, std::string& out) const;

    // Device and inode of the file `pid` runs (stat through /proc/PID/exe); errno or 0.
    int StatExe(int pid, dev_t& device, ino_t& inode) const;
    // Opens /proc/PID/<file> for reading: the descriptor, or -1 with errno set.
    int OpenFile(int pid, const char* file) const;

    const std::string& GetRoot() const { return root_; }

    // ENOENT and ESRCH: the process went away while it was read.
    static bool IsVanished(int error);

private:
    // Writes "<root>/<pid>/<file>" into `path`; false when it does not fit.
    bool MakePath(char* path, size_t size, int pid, const char* file) const;
    static int ReadInto(const char* path, char* buffer, size_t capacity, size_t& size);

    std::string root_;
};

}  // namespace Engine
