#pragma once

#include <cstddef>
#include <string>

namespace Agent {

// What the sinks read or write on this machine besides their destination: token,
// header and CA files, local sockets, the directories of alert files and the spool.
// Each check looks without connecting anywhere and without blocking (a FIFO in the
// place of a file is refused, never opened for reading), so that the sinks at start
// and `--check` judge them by the same rules.
class SinkResources {
public:
    static constexpr size_t kMaxSecretBytes = 64 * 1024;           // a token or header file
    static constexpr size_t kMaxCaBundleBytes = 16 * 1024 * 1024;  // Debian's whole bundle is 0.2 MiB

    // A token or header file: a regular file (not through a symbolic link) of at most
    // kMaxSecretBytes. False with the reason, which names the file.
    static bool ReadSecret(const std::string& path, std::string& text, std::string& error);

    // A CA bundle: a regular file of at most kMaxCaBundleBytes in which OpenSSL finds
    // certificates (PEM), loaded into a scratch context as a TLS connection loads it.
    static bool CheckCaBundle(const std::string& path, std::string& error);

    // A local socket: exists and is a socket (stat only; nothing connects to it).
    static bool CheckSocket(const std::string& path, std::string& error);

    // The directory `path` lies in ("." for a bare name).
    static std::string DirectoryOf(const std::string& path);

    // A directory the agent keeps files in: it exists (or, with `mayCreate`, the nearest
    // directory above it does), we may write there, and it is not on a kernel file system
    // (/proc, /sys, cgroup...), where `onKernelFs` is set: nothing can be kept there.
    static bool CheckWritableDirectory(const std::string& dir, bool mayCreate, std::string& error,
                                       bool& onKernelFs);
};

}  // namespace Agent
