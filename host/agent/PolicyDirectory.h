#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

// The policy files of the agent: <root>/<policy id>/<feature name>.json, each
// the policy text of that feature under that id. The directory remembers the
// texts delivered last, so that a reload delivers only what changed.
class PolicyDirectory {
public:
    using Key = std::pair<std::string, std::string>;  // policy id, feature name

    // What a scan found. Policies that could not be read now (a file, a whole
    // id directory, the root) are neither changed nor removed by a reload.
    struct Snapshot {
        std::map<Key, std::string> texts;
        // What could not be read, with why (a sentence naming the path).
        std::map<Key, std::string> unreadable;
        std::map<std::string, std::string> unreadableIds;
        std::string rootUnreadable;

        // Files and directories that could not be read: each is a policy refused.
        size_t CountUnreadable() const {
            return unreadable.size() + unreadableIds.size() + (rootUnreadable.empty() ? 0 : 1);
        }
    };

    struct Change {
        std::string id;
        std::string feature;
        std::string path;
        std::string text;
        bool removed = false;
    };

    static constexpr const char* kRemovedPolicy = "{\"enabled\":false}";

    explicit PolicyDirectory(std::string root);

    const std::string& GetRoot() const { return root_; }
    std::string PathOf(const Key& key) const;

    // Reads every policy file; problems (unreadable directory or file) are logged, naming the path.
    Snapshot Scan() const;
    // The changes that turn `delivered` into `current`, ordered by id and feature:
    // new and changed texts, and a removal (text kRemovedPolicy) for every key
    // that is gone from `current`.
    static std::vector<Change> Diff(const std::map<Key, std::string>& delivered, const Snapshot& current,
                                    const std::string& root);

    // Diff of `current` against what was delivered.
    std::vector<Change> ChangesFrom(const Snapshot& current) const {
        return Diff(delivered_, current, root_);
    }
    // Scan, then ChangesFrom.
    std::vector<Change> FindChanges() const;
    // Remembers a change as delivered (a removal forgets the key).
    void MarkDelivered(const Change& change);

private:
    std::string root_;
    std::map<Key, std::string> delivered_;
};

}  // namespace Agent
