// What a reload of the policy directory delivers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <Poco/File.h>

#include <string>
#include <vector>

#include "PolicyDirectory.h"
#include "support/TempDir.h"

namespace {

using Agent::PolicyDirectory;

std::vector<std::string> Describe(const std::vector<PolicyDirectory::Change>& changes) {
    std::vector<std::string> out;
    for (const auto& change : changes) {
        out.push_back(change.id + "/" + change.feature + (change.removed ? " removed " : " ") + change.text);
    }
    return out;
}

}  // namespace

TEST(PolicyDirectory, DiffFindsAdditionsChangesAndRemovalsButNotWhatCouldNotBeRead) {
    const std::map<PolicyDirectory::Key, std::string> delivered = {
        {{"10001", "a"}, "A"}, {{"10001", "b"}, "B"}, {{"10001", "c"}, "C"},
        {{"10002", "d"}, "D"}, {{"10003", "e"}, "E"}, {{"10004", "f"}, "F"}};
    PolicyDirectory::Snapshot now;
    now.texts = {{{"10001", "a"}, "A"}, {{"10001", "b"}, "B2"}, {{"10001", "z"}, "Z"}};
    now.unreadable = {{{"10002", "d"}, "cannot read"}};
    now.unreadableIds = {{"10003", "cannot read"}};
    const auto changes = PolicyDirectory::Diff(delivered, now, "/p/");
    EXPECT_EQ(Describe(changes),
              (std::vector<std::string>{"10001/b B2", "10001/c removed {\"enabled\":false}", "10001/z Z",
                                        "10004/f removed {\"enabled\":false}"}));
    EXPECT_EQ(changes.front().path, "/p/10001/b.json");

    now.rootUnreadable = "cannot read";
    now.texts.clear();
    EXPECT_TRUE(PolicyDirectory::Diff(delivered, now, "/p/").empty());
}

TEST(PolicyDirectory, ScanReadsIdDirectoriesAndRemembersOnlyWhatWasMarkedDelivered) {
    TestSupport::TempDir dir;
    const std::string& root = dir.path();
    dir.Write("10001/proc_feature.json", "{\"enabled\":true}");
    dir.Write("10001/.proc_feature.json.swp", "junk");
    dir.Write("10001/notes.txt", "junk");
    dir.Write("stray.json", "{}");
    dir.Write("90001/test.json", "{\"value\":1}");
    dir.Write("90001/locked.json", "{}");
    ::chmod((root + "/90001/locked.json").c_str(), 0);
    dir.Write("90001/open.json", "{}");  // anyone may rewrite it: refused
    ::chmod((root + "/90001/open.json").c_str(), 0666);

    PolicyDirectory directory(root);
    const bool root_user = ::geteuid() == 0;  // root reads mode-0 files
    auto changes = directory.FindChanges();
    std::vector<std::string> expected = {"10001/proc_feature {\"enabled\":true}"};
    if (root_user) {
        expected.push_back("90001/locked {}");
    }
    expected.push_back("90001/test {\"value\":1}");
    EXPECT_EQ(Describe(changes), expected);

    // Only what was delivered counts as known: the refused one is offered again.
    for (const auto& change : changes) {
        if (change.feature != "test") {
            directory.MarkDelivered(change);
        }
    }
    dir.Write("10001/proc_feature.json", "{\"enabled\":false}");
    EXPECT_EQ(
        Describe(directory.FindChanges()),
        (std::vector<std::string>{"10001/proc_feature {\"enabled\":false}", "90001/test {\"value\":1}"}));

    Poco::File(root + "/10001/proc_feature.json").remove();
    changes = directory.FindChanges();
    ASSERT_FALSE(changes.empty());
    EXPECT_TRUE(changes.front().removed);
    EXPECT_EQ(changes.front().path, root + "/10001/proc_feature.json");
}
