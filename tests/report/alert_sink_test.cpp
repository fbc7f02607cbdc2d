// The alert sinks and the backlog that carries alerts across a sink's outage.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/File.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "AlertFileSink.h"
#include "AlertSinkWriter.h"
#include "AlertStreamSink.h"
#include "support/FileText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using TestSupport::ReadLines;

// Fixed width, so that sizes in bytes count lines.
std::string Line(int index) {
    char text[64];
    std::snprintf(text, sizeof(text), "{\"seq\":\"%04d\",\"pad\":\"xxxxxxxxxx\"}\n", index);
    return text;
}

}  // namespace

TEST(AlertFileSink, AppendsPrivateLinesAndRotatesKeepingTheNewest) {
    TestSupport::TempDir dir;
    const std::string path = dir.path() + "/alerts.json";
    ::umask(022);
    const size_t lineSize = Line(10).size();
    Agent::AlertSinkWriter writer(std::make_unique<Agent::AlertFileSink>(path, lineSize * 3, 2), 1 << 20);
    // 21 lines make seven full files of three; the last three files hold lines 22 to 30.
    for (int index = 10; index <= 30; ++index) {
        writer.Add(Line(index));
    }
    EXPECT_FALSE(writer.HasBacklog());

    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_FALSE(Poco::File(path + ".3").exists());

    // Oldest first: .2, .1, then the live file; whole lines only, each file within its limit.
    std::vector<std::string> kept;
    for (const std::string& file : {path + ".2", path + ".1", path}) {
        const std::vector<std::string> lines = ReadLines(file);
        EXPECT_EQ(lines.size(), 3u) << file;
        kept.insert(kept.end(), lines.begin(), lines.end());
    }
    ASSERT_EQ(kept.size(), 9u);
    for (size_t index = 0; index < kept.size(); ++index) {
        EXPECT_EQ(kept[index] + "\n", Line(22 + static_cast<int>(index)));
    }
}

TEST(AlertSinkWriter, HoldsLinesWhileTheFileCannotBeOpenedAndWritesThemInOrderLater) {
    TestSupport::TempDir dir;
    const std::string path = dir.path() + "/later/alerts.json";
    Agent::AlertSinkWriter writer(std::make_unique<Agent::AlertFileSink>(path, 0, 0), 1 << 20);
    for (int index = 0; index < 5; ++index) {
        writer.Add(Line(index));
    }
    EXPECT_EQ(writer.GetBacklogCount(), 5u);
    EXPECT_FALSE(writer.Flush());

    Poco::File(dir.path() + "/later").createDirectories();
    writer.Add(Line(5));
    EXPECT_FALSE(writer.HasBacklog());
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 6u);
    for (int index = 0; index < 6; ++index) {
        EXPECT_EQ(lines[static_cast<size_t>(index)] + "\n", Line(index));
    }
}

TEST(AlertSinkWriter, FullDiskIsLoggedOnceAndTheBacklogStaysBounded) {
    TestSupport::LogCapture log("agent");
    const size_t limit = Line(0).size() * 10;
    Agent::AlertSinkWriter writer(std::make_unique<Agent::AlertFileSink>("/dev/full", 100, 3), limit);
    for (int index = 0; index < 100; ++index) {
        writer.Add(Line(index));
    }
    EXPECT_EQ(writer.GetBacklogCount(), 10u);
    EXPECT_EQ(writer.GetDroppedCount(), 90u);
    EXPECT_EQ(log.Count("cannot write alerts to /dev/full: No space left on device"), 1u);
    EXPECT_EQ(log.Count("alert backlog of /dev/full is full"), 1u);
    EXPECT_TRUE(Poco::File("/dev/full").exists()) << "a device must never be rotated away";
}

TEST(AlertStreamSink, WritesIntoAPipeAndKeepsLinesOnceTheReaderIsGone) {
    ::signal(SIGPIPE, SIG_IGN);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    Agent::AlertSinkWriter writer(std::make_unique<Agent::AlertStreamSink>(fds[1], "standard output"),
                                  1 << 20);
    writer.Add(Line(1));
    writer.Add(Line(2));
    char buffer[256] = {};
    const ssize_t got = ::read(fds[0], buffer, sizeof(buffer));
    ASSERT_GT(got, 0);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(got)), Line(1) + Line(2));

    ::close(fds[0]);
    TestSupport::LogCapture log("agent");
    writer.Add(Line(3));
    writer.Add(Line(4));
    EXPECT_EQ(writer.GetBacklogCount(), 2u);
    EXPECT_EQ(log.Count("cannot write alerts to standard output: Broken pipe"), 1u);
    ::close(fds[1]);
}
