#include "ServiceUnit.h"

#include <dirent.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <map>
#include <sstream>

#include "TextFile.h"

namespace Agent {

namespace {

constexpr size_t kMaxUnitBytes = 64 * 1024;
const char* const kUnitDirs[] = {"/etc/systemd/system/", "/run/systemd/system/", "/lib/systemd/system/",
                                 "/usr/lib/systemd/system/"};

std::string Trim(const std::string& text) {
    const size_t start = text.find_first_not_of(" \t\r");
    if (start == std::string::npos) {
        return "";
    }
    return text.substr(start, text.find_last_not_of(" \t\r") - start + 1);
}

// `path` with symbolic links resolved as far as it exists; the rest appended as given.
std::string Canonical(const std::string& path) {
    std::string head = path;
    std::string tail;
    for (;;) {
        char real[PATH_MAX];
        if (::realpath(head.c_str(), real) != nullptr) {
            const std::string resolved = real;
            return (resolved == "/" ? std::string() : resolved) + tail;
        }
        const size_t slash = head.find_last_of('/');
        if (slash == std::string::npos) {
            return path;
        }
        tail = head.substr(slash) + tail;
        head = slash == 0 ? "/" : head.substr(0, slash);
    }
}

// The *.conf files of the drop-in directories, by name (systemd applies them in that
// order; a name in an earlier directory hides the same name in a later one).
std::vector<std::string> DropIns(const std::vector<std::string>& dirs) {
    std::map<std::string, std::string> found;
    for (const std::string& dir : dirs) {
        DIR* listing = ::opendir(dir.c_str());
        if (listing == nullptr) {
            continue;
        }
        while (const dirent* entry = ::readdir(listing)) {
            const std::string name = entry->d_name;
            if (name.size() > 5 && name.compare(name.size() - 5, 5, ".conf") == 0) {
                found.emplace(name, dir + name);
            }
        }
        ::closedir(listing);
    }
    std::vector<std::string> files;
    for (const auto& entry : found) {
        files.push_back(entry.second);
    }
    return files;
}

}  // namespace

bool ServiceUnit::FindInstalled(const std::string& executable, ServiceUnit& out, std::string& error) {
    std::vector<std::string> dropInDirs;
    for (const char* dir : kUnitDirs) {
        dropInDirs.push_back(std::string(dir) + kName + ".d/");
    }
    for (const char* dir : kUnitDirs) {
        const std::string file = std::string(dir) + kName;
        struct stat info {};
        if (::stat(file.c_str(), &info) != 0) {
            continue;
        }
        ServiceUnit unit;
        if (!ReadLayered(file, dropInDirs, unit, error) || unit.program_.empty() ||
            Canonical(unit.program_) != Canonical(executable)) {
            return false;
        }
        out = unit;
        return true;
    }
    return false;
}

bool ServiceUnit::Load(const std::string& file, ServiceUnit& out, std::string& error) {
    return ReadLayered(file, {file + ".d/"}, out, error);
}

bool ServiceUnit::ReadLayered(const std::string& file, const std::vector<std::string>& dropInDirs,
                              ServiceUnit& out, std::string& error) {
    ServiceUnit unit;
    if (!unit.Read(file, error)) {
        return false;
    }
    for (const std::string& dropIn : DropIns(dropInDirs)) {
        if (!unit.Read(dropIn, error)) {
            return false;
        }
    }
    unit.file_ = file;
    out = unit;
    return true;
}

bool ServiceUnit::Read(const std::string& file, std::string& error) {
    std::string text;
    if (!TextFile::Read(file, kMaxUnitBytes, text, error)) {
        error = file + ": " + error;
        return false;
    }
    std::istringstream lines(text);
    bool service = false;
    for (std::string line; std::getline(lines, line);) {
        line = Trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';') {
            continue;
        }
        if (line[0] == '[') {
            service = line == "[Service]";
            continue;
        }
        const size_t equals = line.find('=');
        if (!service || equals == std::string::npos) {
            continue;
        }
        const std::string key = Trim(line.substr(0, equals));
        const std::string value = Trim(line.substr(equals + 1));
        std::istringstream words(value);
        std::string word;
        if (key == "ExecStart") {
            // An empty assignment resets the list; "-", "@", "+"... prefix the program.
            words >> word;
            program_ = word.substr(std::min(word.find_first_not_of("-@:+!"), word.size()));
        } else if (key == "ProtectSystem") {
            strict_ = value == "strict";
        } else if (key == "ReadWritePaths") {
            if (value.empty()) {
                writable_.clear();
            }
            while (words >> word) {
                // "-": ignored when missing; "+": outside a root directory (none here).
                writable_.push_back(word.substr(std::min(word.find_first_not_of("-+"), word.size())));
            }
        }
    }
    return true;
}

bool ServiceUnit::MayWrite(const std::string& path) const {
    if (!strict_) {
        return true;
    }
    const std::string target = Canonical(path);
    for (const std::string& dir : writable_) {
        const std::string allowed = Canonical(dir);
        if (target == allowed || target.rfind(allowed + "/", 0) == 0 || allowed == "/") {
            return true;
        }
    }
    return false;
}

std::string ServiceUnit::DescribeWritable() const {
    std::string text = "ReadWritePaths=";
    for (const std::string& dir : writable_) {
        text += (text.back() == '=' ? "" : " ") + dir;
    }
    return text;
}

}  // namespace Agent
