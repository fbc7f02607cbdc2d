#pragma once

#include <string>

namespace SDK {

class PathUtils {
public:
    // The last component of a path ("a/b/c" gives "c").
    static std::string GetFileNameFromPath(const std::string& path);
    // The agent's installation prefix, ending in "/": the one set by
    // SetInstallationPath, else "/usr/local/corvane/".
    static void GetInstallationPath(std::string& out);
    static void SetInstallationPath(const std::string& prefix);
};

}  // namespace SDK
