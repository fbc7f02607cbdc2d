#include "PolicyDirectory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "TextFile.h"
#include "TrustedPath.h"
#include "sdk/HostLog.h"

namespace Agent {

namespace {

// Policies are a few KiB; the cap bounds what a broken push can make the agent hold.
constexpr size_t kMaxPolicyBytes = 4 * 1024 * 1024;
const std::string kSuffix = ".json";

using DirHandle = std::unique_ptr<DIR, int (*)(DIR*)>;

// Entry names of a directory, hidden ones (editors' and our own temporaries) left out.
bool ListNames(const std::string& dir, std::vector<std::string>& names) {
    DirHandle handle(::opendir(dir.c_str()), ::closedir);
    if (!handle) {
        return false;
    }
    while (const dirent* entry = ::readdir(handle.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    return true;
}

bool IsDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// "<feature>.json" gives the feature; anything else is not a policy file.
bool FeatureOf(const std::string& fileName, std::string& feature) {
    if (fileName.size() <= kSuffix.size() ||
        fileName.compare(fileName.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
        return false;
    }
    feature = fileName.substr(0, fileName.size() - kSuffix.size());
    return true;
}

// A policy file that passes TrustedPath, read whole; false with why, naming the path.
bool ReadPolicyFile(const std::string& path, std::string& text, std::string& why) {
    if (!TrustedPath::Check(path, why)) {
        return false;
    }
    if (!TextFile::Read(path, kMaxPolicyBytes, text, why)) {
        why = "cannot read policy file " + path + " (" + why + ")";
        return false;
    }
    return true;
}

}  // namespace

PolicyDirectory::PolicyDirectory(std::string root) : root_(std::move(root)) {
    if (root_.empty() || root_.back() != '/') {
        root_.push_back('/');
    }
}

std::string PolicyDirectory::PathOf(const Key& key) const {
    return root_ + key.first + "/" + key.second + kSuffix;
}

PolicyDirectory::Snapshot PolicyDirectory::Scan() const {
    Snapshot snapshot;
    std::vector<std::string> ids;
    if (!ListNames(root_, ids)) {
        snapshot.rootUnreadable = "cannot read the policy directory " + root_ + ": " + std::strerror(errno);
        HOST_CONSOLE_LOG_ERROR(snapshot.rootUnreadable + "; the policies in force stay as they are");
        return snapshot;
    }
    for (const std::string& id : ids) {
        const std::string idDir = root_ + id;
        if (!IsDirectory(idDir)) {
            continue;
        }
        std::vector<std::string> files;
        if (!ListNames(idDir, files)) {
            const std::string why = "cannot read the policy directory " + idDir + ": " + std::strerror(errno);
            HOST_CONSOLE_LOG_ERROR(why + "; its policies in force stay as they are");
            snapshot.unreadableIds.emplace(id, why);
            continue;
        }
        for (const std::string& file : files) {
            Key key(id, "");
            if (!FeatureOf(file, key.second)) {
                continue;
            }
            const std::string path = PathOf(key);
            std::string text;
            std::string error;
            if (!ReadPolicyFile(path, text, error)) {
                HOST_CONSOLE_LOG_ERROR(error + "; the policy in force for it stays");
                snapshot.unreadable.emplace(key, error);
                continue;
            }
            snapshot.texts.emplace(key, std::move(text));
        }
    }
    return snapshot;
}

std::vector<PolicyDirectory::Change> PolicyDirectory::Diff(const std::map<Key, std::string>& delivered,
                                                           const Snapshot& current, const std::string& root) {
    std::vector<Change> changes;
    auto pathOf = [&root](const Key& key) { return root + key.first + "/" + key.second + kSuffix; };
    auto old = delivered.begin();
    auto now = current.texts.begin();
    // Both maps are ordered by key: one merge pass finds additions, changes and removals in order.
    while (old != delivered.end() || now != current.texts.end()) {
        const bool takeOld =
            now == current.texts.end() || (old != delivered.end() && old->first < now->first);
        const bool takeNew =
            old == delivered.end() || (now != current.texts.end() && now->first < old->first);
        if (takeOld) {
            const Key& key = old->first;
            const bool unknown = !current.rootUnreadable.empty() ||
                                 current.unreadableIds.count(key.first) != 0 ||
                                 current.unreadable.count(key) != 0;
            if (!unknown) {
                changes.push_back({key.first, key.second, pathOf(key), kRemovedPolicy, true});
            }
            ++old;
        } else if (takeNew) {
            changes.push_back({now->first.first, now->first.second, pathOf(now->first), now->second, false});
            ++now;
        } else {
            if (old->second != now->second) {
                changes.push_back(
                    {now->first.first, now->first.second, pathOf(now->first), now->second, false});
            }
            ++old;
            ++now;
        }
    }
    return changes;
}

std::vector<PolicyDirectory::Change> PolicyDirectory::FindChanges() const {
    return ChangesFrom(Scan());
}

void PolicyDirectory::MarkDelivered(const Change& change) {
    const Key key(change.id, change.feature);
    if (change.removed) {
        delivered_.erase(key);
    } else {
        delivered_[key] = change.text;
    }
}

}  // namespace Agent
