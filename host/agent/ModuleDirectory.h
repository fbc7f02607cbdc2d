#pragma once

#include <string>
#include <vector>

namespace Agent {

// The modules a prefix offers: every lib*.so in its module/ directory.
class ModuleDirectory {
public:
    // Full paths in load order; false with the reason when the directory cannot be read.
    static bool List(const std::string& dir, std::vector<std::string>& paths, std::string& error);
    // Load order of file names: the host's collect modules first (the plug-ins
    // look up their tasks), then the rest by name. Names that are not lib*.so are left out.
    static std::vector<std::string> Order(std::vector<std::string> fileNames);
    // Whether `path` is one of the host's own collect modules rather than a plug-in.
    static bool IsHostModule(const std::string& path);
};

}  // namespace Agent
