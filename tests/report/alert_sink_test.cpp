// The spool that carries alerts across crashes and outages, and the file sink.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "AlertFileSink.h"
#include "AlertSinkPump.h"
#include "AlertSpool.h"
#include "SiemEnvelope.h"
#include "support/FileText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

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

// Everything `sink` can read from its cursor, committed as read. A read that
// neither returns lines nor moves must be at the end: anything else would spin.
std::vector<std::string> Drain(Agent::AlertSpool& spool, const std::string& sink) {
    std::vector<std::string> all;
    uint64_t cursor = spool.LoadCursor(sink);
    for (;;) {
        std::vector<std::string> lines;
        uint64_t from = cursor;
        EXPECT_TRUE(spool.Read(from, 7, 1 << 20, lines));
        if (lines.empty() && from == cursor) {
            EXPECT_GE(cursor, spool.GetEnd()) << "a read that goes nowhere before the end";
            return all;
        }
        for (const std::string& line : lines) {
            from += line.size();
        }
        all.insert(all.end(), lines.begin(), lines.end());
        std::string error;
        EXPECT_TRUE(spool.SaveCursor(sink, from, error)) << error;
        cursor = from;
    }
}

Agent::AlertSpool::OpenResult Open(Agent::AlertSpool& spool) {
    std::string error;
    return spool.Open(error);
}

constexpr auto kOpen = Agent::AlertSpool::OpenResult::kOpen;

}  // namespace

TEST(AlertSpool, EachSinkResumesFromItsCommittedLineAcrossRestartsAndTornTails) {
    TestSupport::TempDir dir;
    const std::string spoolDir = dir.path() + "/spool";
    {
        Agent::AlertSpool spool(spoolDir, 64 << 20);
        ASSERT_EQ(Open(spool), kOpen);
        spool.LoadCursor("fast");
        spool.LoadCursor("slow");
        ASSERT_TRUE(spool.Append(Lines(1, 10)));
        EXPECT_EQ(Drain(spool, "fast"), Lines(1, 10));
        ASSERT_TRUE(spool.Append(Lines(11, 12)));
    }
    EXPECT_EQ(std::filesystem::status(spoolDir).permissions(), std::filesystem::perms(0700));
    // A crash in the middle of a write leaves part of a line: it is cut, the rest kept.
    const std::string segment = spoolDir + "/00000000000000000000.seg";
    const int fd = ::open(segment.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "{\"torn", 6), 6);
    ::close(fd);

    Agent::AlertSpool spool(spoolDir, 64 << 20);
    ASSERT_EQ(Open(spool), kOpen);
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
    ASSERT_EQ(Open(spool), kOpen);
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

TEST(AlertSpool, DamageIsSkippedWithItsPlaceAndSizeLoggedAndEveryOtherPendingAlertDelivered) {
    // 6,000 pending alerts of 34 bytes, spooled 100 at a time into 64 KiB segments:
    // lines 1-2000 in the first segment, 2001-4000 in the second (at offset 68000), 4001-6000 after.
    const char* first = "/00000000000000000000.seg";
    const char* second = "/00000000000000068000.seg";
    const char* pos = "/down.pos";
    const char* third = "/00000000000000136000.seg";
    const std::string nul(4, '\0');  // into line 500 (at 16966)
    const std::string overlong = std::string(1200000, 'x') + "\n" + Line(4001);
    struct Damage {
        const char* file;
        long at;  // where the text goes; without text: the size cut to, or < 0 to remove the file
        std::string text = "";  // written over what is there
    };
    const struct {
        const char* what;
        bool live;  // damaged while the spool is open, else between two runs
        std::vector<Damage> damage;
        int lostFirst, lostLast;
        uint64_t lostBytes;
        const char* logged;
    } cases[] = {
        {"cut", false, {{first, 3420}}, 101, 2000, 64600, "middle of a line; 20 bytes (1 alert"},
        {"cut while open", true, {{first, 3420}}, 101, 2000, 64600, "line; 64600 bytes (1 alert"},
        {"garbled", false, {{first, 16976, nul}}, 500, 500, 34, "document; 34 bytes (1 alert"},
        {"run together while open", true, {{first, 23799, " "}}, 700, 701, 68, "document; 68 bytes (1 alert"},
        {"segment gone", false, {{second, -1}}, 2001, 4000, 68000, "or cut short); 68000 bytes"},
        {"segment gone while open", true, {{second, -1}}, 2001, 4000, 68000, "was removed; 68000 bytes"},
        {"overlong line",
         false,
         {{third, 0, overlong}},
         4002,
         6000,
         1200001,
         "any alert line; 1200001 bytes"},
        {"position gone", false, {{pos, -1}}, 0, -1, 0, "down.pos is missing"},
        {"position past the end", false, {{pos, 0, "999999\n"}}, 0, -1, 0, "points past the end"},
        {"pos in a gap", false, {{second, -1}, {pos, 0, "68340\n"}}, 2001, 4000, 68000, "stretch missing"},
        {"position mid-line", false, {{pos, 0, "345\n"}}, 0, -1, 0, "does not point at the start of a line"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        TestSupport::TempDir dir;
        TestSupport::LogCapture log("agent");
        const std::string spoolDir = dir.path() + "/spool";
        auto spool = std::make_unique<Agent::AlertSpool>(spoolDir, 512 << 10);
        ASSERT_EQ(Open(*spool), kOpen);
        spool->LoadCursor("down");
        for (int index = 1; index <= 6000; index += 100) {
            ASSERT_TRUE(spool->Append(Lines(index, index + 99)));
        }
        if (!test.live) {
            spool.reset();
        }
        for (const Damage& damage : test.damage) {
            const std::string path = spoolDir + damage.file;
            const int fd = ::open(path.c_str(), O_WRONLY);
            EXPECT_EQ(damage.at < 0 ? std::remove(path.c_str())
                      : damage.text.empty()
                          ? ::ftruncate(fd, damage.at)
                          : ::pwrite(fd, damage.text.data(), damage.text.size(), damage.at) -
                                static_cast<ssize_t>(damage.text.size()),
                      0);
            ::close(fd);
        }
        if (!test.live) {
            spool = std::make_unique<Agent::AlertSpool>(spoolDir, 512 << 10);
            ASSERT_EQ(Open(*spool), kOpen);
        }
        std::vector<std::string> expected = Lines(1, 6000);
        if (test.lostFirst > 0) {
            expected.erase(expected.begin() + test.lostFirst - 1, expected.begin() + test.lostLast);
        }
        EXPECT_TRUE(Drain(*spool, "down") == expected)
            << "not every other pending alert came, once, in order";
        EXPECT_EQ(spool->GetLostBytes(), test.lostBytes);
        EXPECT_EQ(log.Count(test.logged), 1u);
    }
}

TEST(AlertSpool, ASymlinkedDirectoryIsRefusedAndNotWrittenThrough) {
    TestSupport::TempDir dir;
    ASSERT_EQ(::symlink(dir.path().c_str(), (dir.path() + "/spool").c_str()), 0);
    Agent::AlertSpool spool(dir.path() + "/spool", 1 << 20);
    std::string error;
    EXPECT_EQ(spool.Open(error), Agent::AlertSpool::OpenResult::kRefused);
    EXPECT_NE(error.find("is a symbolic link"), std::string::npos) << error;
    EXPECT_FALSE(spool.Append(Lines(1, 1)));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1)
        << "written through the link";
}

namespace {

// A destination that judges content: a batch holding `poison` is refused for good.
struct StrictSink : Agent::AlertSink {
    explicit StrictSink(std::string poison) : poison(std::move(poison)) {}
    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override {
        for (const std::string& line : lines) {
            if (line.find(poison) != std::string::npos) {
                error = "HTTP 400";
                MarkRefusedForGood();
                return 0;
            }
        }
        got.insert(got.end(), lines.begin(), lines.end());
        return lines.size();
    }
    std::string Describe() const override { return "strict"; }
    size_t MaxBatch() const override { return 8; }

    const std::string poison;
    std::vector<std::string> got;  // read once the pump stopped
};

}  // namespace

// An alert refused for good is set aside in the dead-letter file and the rest delivered: met end
// to end (alert_sinks_e2e_test). Here, the file full: the sink waits at that line.
TEST(AlertSinkPump, AFullDeadLetterFileHoldsTheSinkAtTheRefusedLine) {
    TestSupport::TempDir dir;
    TestSupport::LogCapture log("agent");
    Agent::AlertSpool spool(dir.path() + "/spool", 1 << 20);
    ASSERT_EQ(Open(spool), kOpen);
    const Agent::AlertSinkPump::Timing quick{std::chrono::milliseconds(1), std::chrono::milliseconds(5)};
    auto* blocked = new StrictSink("\"0007\"");
    Agent::AlertSinkPump full("blocked", std::unique_ptr<Agent::AlertSink>(blocked), nullptr, spool, quick,
                              10);
    full.Start();
    ASSERT_TRUE(spool.Append(Lines(1, 20)));
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] { return full.GetDeliveredCount() == 6 && log.Contains("blocked.dead is full"); }));
    full.Stop(std::chrono::milliseconds(0));
    EXPECT_EQ(blocked->got, Lines(1, 6));
    EXPECT_EQ(full.GetDeadLetteredCount(), 0u);
}

// An outage that changes cause logs each cause, the repeats counted, then its end.
TEST(AlertSinkPump, AnOutageLogsEveryDistinctCauseAndItsEnd) {
    struct FlakySink : Agent::AlertSink {
        size_t Deliver(const std::vector<std::string>& lines, std::string& error) override {
            if (++calls > 7) {
                return lines.size();
            }
            error = calls == 1 ? "Server returned nothing" : "HTTP 503";
            return 0;
        }
        std::string Describe() const override { return "flaky"; }
        int calls = 0;
    };
    TestSupport::TempDir dir;
    TestSupport::LogCapture log("agent");
    Agent::AlertSpool spool(dir.path() + "/spool", 1 << 20);
    ASSERT_EQ(Open(spool), kOpen);
    Agent::AlertSinkPump pump("siem", std::make_unique<FlakySink>(), nullptr, spool,
                              {std::chrono::milliseconds(1), std::chrono::milliseconds(2)});
    pump.Start();
    ASSERT_TRUE(spool.Append(Lines(1, 3)));
    ASSERT_TRUE(TestSupport::WaitFor([&] { return log.Contains("alerts reach siem"); }));
    pump.Stop(std::chrono::milliseconds(0));
    EXPECT_EQ(log.Count("siem (flaky): Server returned nothing; they wait"), 1u);
    EXPECT_EQ(log.Count("siem (flaky): HTTP 503; they wait"), 1u);
    EXPECT_TRUE(log.Contains("siem: HTTP 503 (5 more times in the last"));
    EXPECT_TRUE(log.Contains("again after 7 failed attempts; 3 delivered since"));
}

// Its files are private: met end to end (alert_sinks_e2e_test).
TEST(AlertFileSink, AppendsLinesAndRotatesKeepingTheNewest) {
    TestSupport::TempDir dir;
    const std::string path = dir.path() + "/alerts.json";
    const size_t lineSize = Line(10).size();
    Agent::AlertFileSink sink(path, lineSize * 3, 2);
    std::string error;
    // 21 lines make seven full files of three; the last three files hold lines 22 to 30.
    ASSERT_EQ(sink.Deliver(Lines(10, 30), error), 21u) << error;

    EXPECT_FALSE(std::filesystem::exists(path + ".3"));
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
        {"hard link", [&] { ::link((dir.path() + "/outside").c_str(), path.c_str()); }, "has 2 hard links"},
    };
    std::ofstream(dir.path() + "/outside") << "";
    ::chmod((dir.path() + "/outside").c_str(), 0644);
    for (const Case& test : cases) {
        ::chmod(dir.path().c_str(), 0700);
        std::remove(path.c_str());
        test.prepare();
        Agent::AlertFileSink refused(path, 0, 0);
        EXPECT_EQ(refused.Deliver({Line(3)}, error), 0u) << test.what;
        EXPECT_NE(error.find(test.reason), std::string::npos) << test.what << ": " << error;
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/target")) << "written through a link";
    EXPECT_EQ(std::filesystem::file_size(dir.path() + "/outside"), 0u) << "written through a hard link";
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
    EXPECT_EQ(std::make_tuple(document["@timestamp"].asString(), document["host"]["name"].asString(),
                              document["host"]["id"].asString(), document["agent"]["version"].asString(),
                              document["event"]["code"].asString()),
              std::make_tuple("2023-11-14T22:13:20Z", "web-1", "0123abcd", "0.1.0", "procdet_0001"));
    EXPECT_EQ(Json::FastWriter().write(document["corvane_flags"]),
              "[{\"names\":[\"PROC_TMP\",\"HIGHCPU\",\"PACKER\"],\"process_pid\":42},"
              "{\"names\":[],\"process_pid\":43}]\n");

    // Context only for a pid that still runs the program the alert names: this test,
    // not pid 1 under another program's name.
    char self[4096] = {};
    ASSERT_GT(::readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string running = R"({"event_classid":"procdet_0001","process_info":[{"process_pid":)" +
                                std::to_string(::getpid()) + R"(,"process_path":")" + self +
                                R"(","rule":1},{"process_pid":1,"process_path":"/tmp/not-init","rule":1}]})";
    ASSERT_TRUE(Json::Reader().parse(envelope.Wrap(running + "\n"), document));
    ASSERT_EQ(document["corvane_context"].size(), 1u) << document["corvane_context"];
    const Json::Value& context = document["corvane_context"][0];
    EXPECT_EQ(context["process_pid"].asInt(), ::getpid());
    EXPECT_GT(context["namespaces"]["pid"].asUInt64(), 0u);
    EXPECT_EQ(context["user"]["id"].asUInt(), ::getuid());
    EXPECT_FALSE(context.isMember("container")) << "a process of the host";
}
