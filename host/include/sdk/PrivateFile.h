#pragma once

#include <string>

namespace SDK {

// Files that carry alerts and logs (user names, command lines) are root's alone:
// opened without following a symlink, refused when another user owns them, when
// they have another hard link (a chmod would reach the file behind it) or when
// their directory is writable by others, and brought to mode 0600 whatever mode
// an earlier file had.
class PrivateFile {
public:
    // open(2) of `path` with `flags` | O_NOFOLLOW | O_CLOEXEC (created 0600 with
    // O_CREAT). Returns the descriptor, or -1 with the reason in `error`.
    // Devices, FIFOs and sockets are accepted as they are (standard streams,
    // /dev/null); only regular files are checked for owner and mode.
    static int Open(const std::string& path, int flags, std::string& error);
    // Creates or checks `path` as a private directory of the agent's and opens it
    // (O_DIRECTORY). Refused: a symbolic link, another user's directory, one
    // writable by its group or others (anyone may have planted files in it), or
    // one whose parent others may write (unless that parent is sticky and root's
    // or ours, like /tmp). An accepted one is brought to mode 0700. Returns the
    // descriptor, or -1 with the reason in `error`.
    static int OpenDirectory(const std::string& path, std::string& error);
    // False with the reason when the directory holding `path` is writable by others.
    static bool CheckParent(const std::string& path, std::string& error);
};

}  // namespace SDK
