#pragma once

#include <string>

namespace Agent {

// Whether a file the agent loads as root (a module, agent.json, a policy) can only have been put
// there by root: the file and every directory above it are owned by root and writable by no group
// and no other user, as sshd's StrictModes demands of its files. A root-owned directory with the
// sticky bit (/tmp) passes: others cannot replace root's entries in it.
//
// Development trees owned by a user pass when the environment sets CORVANE_INSECURE_DEV_TREE=1;
// the agent then says so once in its log.
class TrustedPath {
public:
    // True when `path` (a file or a directory; symbolic links followed, the links' own directories
    // checked too) passes, or when the development override is set. Otherwise false with the first
    // offending path and why in `error`. A path that does not exist passes: reading it fails anyway.
    static bool Check(const std::string& path, std::string& error);

    static bool InsecureOverride();
};

}  // namespace Agent
