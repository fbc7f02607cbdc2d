// The process-connector decoder on messages captured from a kernel; malformed
// buffers are the fuzz target's (fuzz/proc_connector_fuzz.cpp).
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ProcEventDecoder.h"
#include "support/FileText.h"

namespace {

using Engine::ProcEvent;
using Kind = ProcEvent::Kind;

std::string Sample(const std::string& kind) {
    return TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/netlink/proc_connector_" + kind);
}

TEST(ProcEventDecoder, DecodesCapturedMessagesOfEveryKind) {
    std::string buffer = " ";  // decoding must not depend on the buffer's alignment
    for (const char* name : {"fork", "exec", "gid", "exit", "none"}) {
        buffer +=
            TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/netlink/proc_connector_" + name);
    }
    std::vector<ProcEvent> events;
    const auto result = Engine::ProcEventDecoder::Decode(buffer.data() + 1, buffer.size() - 1, events);
    EXPECT_EQ(0u, result.malformed);
    ASSERT_EQ(5u, events.size());
    auto facts = [](const ProcEvent& e) {
        return std::make_tuple(e.kind, e.pid, e.tgid, e.parentTgid, e.realId, e.effectiveId);
    };
    EXPECT_EQ(facts(events[0]), std::make_tuple(Kind::kFork, 18303, 18303, 18150, 0u, 0u));
    EXPECT_EQ(facts(events[1]), std::make_tuple(Kind::kExec, 18303, 18303, 0, 0u, 0u));
    EXPECT_EQ(facts(events[2]), std::make_tuple(Kind::kGid, 18307, 18307, 0, 65534u, 65534u));
    EXPECT_EQ(facts(events[3]), std::make_tuple(Kind::kExit, 18303, 18303, 18150, 0u, 0u));
    EXPECT_EQ(facts(events[4]), std::make_tuple(Kind::kAck, 0, 0, 0, 0u, 0u));
    EXPECT_GT(events[0].timestampNs, 0u);
}

TEST(ProcEventDecoder, SkipsAndCountsWhatItCannotTrust) {
    const std::string fork = Sample("fork");
    auto patched = [&fork](size_t at, char byte) {
        std::string message = fork;
        message[at] = byte;
        return message;
    };
    // Another connector's index, a payload too short for a fork, a netlink length past the end.
    for (const std::string& bad : {patched(16, 9), patched(32, 20), fork.substr(0, 60)}) {
        std::vector<ProcEvent> events;
        EXPECT_EQ(1u, Engine::ProcEventDecoder::Decode(bad.data(), bad.size(), events).malformed);
        EXPECT_TRUE(events.empty());
    }
}

}  // namespace
