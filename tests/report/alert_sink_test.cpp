// The spool that carries alerts across crashes and outages, and the file sink.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/File.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "AlertFileSink.h"
#include "AlertSpool.h"
#include "SiemEnvelope.h"
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

std::vector<std::string> Lines(int first, int last) {
    std::vector<std::string> lines;
    for (int index = first; index <= last; ++index) {
        lines.push_back(Line(index));
    }
    return lines;
}

// Everything `sink` can read from its cursor, committed as read.
std::vector<std::string> Drain(Agent::AlertSpool& spool, const std::string& sink) {
    std::vector<std::string> all;
    uint64_t cursor = spool.LoadCursor(sink);
    for (;;) {
        std::vector<std::string> lines;
        const uint64_t after = spool.Read(cursor, 7, 1 << 20, lines);
        if (lines.empty()) {
            return all;
        }
        all.insert(all.end(), lines.begin(), lines.end());
        std::string error;
        EXPECT_TRUE(spool.SaveCursor(sink, after, error)) << error;
        cursor = after;
    }
}

}  // namespace

TEST(AlertSpool, EachSinkResumesFromItsCommittedLineAcrossRestartsAndTornTails) {
    TestSupport::TempDir dir;
    const std::string spoolDir = dir.path() + "/spool";
    {
        Agent::AlertSpool spool(spoolDir, 64 << 20);
        std::string error;
        ASSERT_TRUE(spool.Open(error)) << error;
        spool.LoadCursor("fast");
        spool.LoadCursor("slow");
        ASSERT_TRUE(spool.Append(Lines(1, 10)));
        EXPECT_EQ(Drain(spool, "fast"), Lines(1, 10));
        ASSERT_TRUE(spool.Append(Lines(11, 12)));
    }
    struct stat info {};
    ASSERT_EQ(::stat(spoolDir.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    // A crash in the middle of a write leaves part of a line: it is cut, the rest kept.
    const std::string segment = spoolDir + "/00000000000000000000.seg";
    const int fd = ::open(segment.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "{\"torn", 6), 6);
    ::close(fd);

    Agent::AlertSpool spool(spoolDir, 64 << 20);
    std::string error;
    ASSERT_TRUE(spool.Open(error)) << error;
    ASSERT_TRUE(spool.Append(Lines(13, 13)));
    EXPECT_EQ(Drain(spool, "fast"), Lines(11, 13));
    EXPECT_EQ(Drain(spool, "slow"), Lines(1, 13));
    EXPECT_EQ(Drain(spool, "new"), std::vector<std::string>{}) << "a new sink starts at the end";
}

TEST(AlertSpool, OverMaxBytesTheOldestUndeliveredAlertsAreDroppedCountedAndLoggedOnce) {
    TestSupport::TempDir dir;
    TestSupport::LogCapture log("agent");
    // 128 KiB segments; a 1 MiB limit holds about 21,000 of these 48-byte lines.
    Agent::AlertSpool spool(dir.path() + "/spool", 1 << 20);
    std::string error;
    ASSERT_TRUE(spool.Open(error)) << error;
    spool.LoadCursor("down");
    for (int round = 0; round < 40; ++round) {
        ASSERT_TRUE(spool.Append(Lines(round * 1000, round * 1000 + 999)));
    }
    EXPECT_LE(spool.GetBytes(), (1u << 20) + (128u << 10) + 48000);
    const std::vector<std::string> left = Drain(spool, "down");
    ASSERT_FALSE(left.empty());
    EXPECT_EQ(left.back(), Line(39999));
    EXPECT_EQ(spool.GetDroppedEvicted() + left.size(), 40000u) << "every alert is delivered or counted";
    EXPECT_EQ(log.Count("is full (max_bytes 1048576): dropping the oldest alerts"), 1u);
    EXPECT_EQ(log.Count("every sink caught up; " + std::to_string(spool.GetDroppedEvicted()) +
                        " alerts were dropped"),
              1u);
}

TEST(AlertFileSink, AppendsPrivateLinesAndRotatesKeepingTheNewest) {
    TestSupport::TempDir dir;
    const std::string path = dir.path() + "/alerts.json";
    std::ofstream{path};
    ::chmod(path.c_str(), 0644);  // an older file keeps no looser mode
    const size_t lineSize = Line(10).size();
    Agent::AlertFileSink sink(path, lineSize * 3, 2);
    std::string error;
    // 21 lines make seven full files of three; the last three files hold lines 22 to 30.
    ASSERT_EQ(sink.Deliver(Lines(10, 30), error), 21u) << error;

    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_FALSE(Poco::File(path + ".3").exists());
    std::vector<std::string> kept;
    for (const std::string& file : {path + ".2", path + ".1", path}) {
        const std::vector<std::string> lines = ReadLines(file);
        EXPECT_EQ(lines.size(), 3u) << file;
        for (const std::string& line : lines) {
            kept.push_back(line + "\n");
        }
    }
    EXPECT_EQ(kept, Lines(22, 30));
}

TEST(AlertFileSink, ReopensAfterLogrotateAndRefusesLinksAndForeignFiles) {
    TestSupport::TempDir dir;
    const std::string path = dir.path() + "/alerts.json";
    Agent::AlertFileSink sink(path, 0, 0);
    std::string error;
    ASSERT_EQ(sink.Deliver({Line(1)}, error), 1u) << error;
    // logrotate's default: rename, then the daemon must start a new file by itself.
    ASSERT_EQ(::rename(path.c_str(), (path + ".1").c_str()), 0);
    ASSERT_EQ(sink.Deliver({Line(2)}, error), 1u) << error;
    EXPECT_EQ(ReadLines(path), std::vector<std::string>{Line(2).substr(0, Line(2).size() - 1)});

    struct Case {
        const char* what;
        std::function<void()> prepare;
        const char* reason;
    } cases[] = {
        {"symlink", [&] { ::symlink((dir.path() + "/target").c_str(), path.c_str()); }, "is a symbolic link"},
        {"foreign owner",
         [&] {
             std::ofstream(path) << "";
             ::chown(path.c_str(), 1234, 0);
         },
         "owned by uid 1234"},
        {"open directory", [&] { ::chmod(dir.path().c_str(), 0777); }, "writable by everyone"},
    };
    for (const Case& test : cases) {
        ::chmod(dir.path().c_str(), 0700);
        std::remove(path.c_str());
        test.prepare();
        Agent::AlertFileSink refused(path, 0, 0);
        EXPECT_EQ(refused.Deliver({Line(3)}, error), 0u) << test.what;
        EXPECT_NE(error.find(test.reason), std::string::npos) << test.what << ": " << error;
    }
    EXPECT_FALSE(Poco::File(dir.path() + "/target").exists()) << "written through a link";
}

TEST(SiemEnvelope, WrapsTheAlertByteForByteWithEcsFieldsAndNamedFlags) {
    const Agent::SiemEnvelope envelope("web-1", "0123abcd", "0.1.0");
    const std::string alert =
        R"({"event_id":"e1","event_classid":"procdet_0001","occur_time":1700000000,)"
        R"("process_info":[{"process_pid":42,"rule":289},{"process_pid":43,"rule":0}]})";
    const std::string wrapped = envelope.Wrap(alert + "\n");
    ASSERT_EQ(wrapped.back(), '\n');
    EXPECT_NE(wrapped.find(",\"corvane\":" + alert + "}\n"), std::string::npos) << wrapped;
    Json::Value document;
    ASSERT_TRUE(Json::Reader().parse(wrapped, document));
    EXPECT_EQ(document["@timestamp"], "2023-11-14T22:13:20Z");
    EXPECT_EQ(document["host"]["name"], "web-1");
    EXPECT_EQ(document["host"]["id"], "0123abcd");
    EXPECT_EQ(document["agent"]["version"], "0.1.0");
    EXPECT_EQ(document["event"]["code"], "procdet_0001");
    EXPECT_EQ(Json::FastWriter().write(document["corvane_flags"]),
              "[{\"names\":[\"PROC_TMP\",\"HIGHCPU\",\"PACKER\"],\"process_pid\":42},"
              "{\"names\":[],\"process_pid\":43}]\n");
}
