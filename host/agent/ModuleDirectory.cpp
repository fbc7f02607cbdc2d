#include "ModuleDirectory.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace Agent {

namespace {

const char* const kHostModules[] = {"libprocess_collect_module.so", "libnet_collect_module.so"};

bool IsModuleName(const std::string& name) {
    const std::string suffix = ".so";
    return name.size() > 3 + suffix.size() && name.compare(0, 3, "lib") == 0 &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

int Rank(const std::string& name) {
    for (size_t index = 0; index < std::size(kHostModules); ++index) {
        if (name == kHostModules[index]) {
            return static_cast<int>(index);
        }
    }
    return static_cast<int>(std::size(kHostModules));
}

}  // namespace

bool ModuleDirectory::IsHostModule(const std::string& path) {
    const size_t slash = path.rfind('/');
    return Rank(slash == std::string::npos ? path : path.substr(slash + 1)) <
           static_cast<int>(std::size(kHostModules));
}

std::vector<std::string> ModuleDirectory::Order(std::vector<std::string> fileNames) {
    fileNames.erase(std::remove_if(fileNames.begin(), fileNames.end(),
                                   [](const std::string& name) { return !IsModuleName(name); }),
                    fileNames.end());
    std::sort(fileNames.begin(), fileNames.end(), [](const std::string& left, const std::string& right) {
        const int leftRank = Rank(left);
        const int rightRank = Rank(right);
        return leftRank != rightRank ? leftRank < rightRank : left < right;
    });
    return fileNames;
}

bool ModuleDirectory::List(const std::string& dir, std::vector<std::string>& paths, std::string& error) {
    std::unique_ptr<DIR, int (*)(DIR*)> handle(::opendir(dir.c_str()), ::closedir);
    if (!handle) {
        error = std::strerror(errno);
        return false;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(handle.get())) {
        if (entry->d_type == DT_REG || entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
            names.emplace_back(entry->d_name);
        }
    }
    const std::string base = (!dir.empty() && dir.back() == '/') ? dir : dir + "/";
    paths.clear();
    for (const std::string& name : Order(std::move(names))) {
        paths.push_back(base + name);
    }
    return true;
}

}  // namespace Agent
