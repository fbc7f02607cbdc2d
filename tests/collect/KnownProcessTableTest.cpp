// Process events: the process-connector decoder on messages captured from a kernel (malformed
// buffers are the fuzz target's), and what a rescan reports against the table kept up to date
// by events.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "KnownProcessTable.h"
#include "ProcEventDecoder.h"
#include "support/FileText.h"

namespace {

using Engine::KnownProcess;
using Engine::KnownProcessTable;
using Engine::ProcEvent;

KnownProcess Proc(int ppid, int64_t start, unsigned uid, unsigned gid = 0) {
    KnownProcess state;
    state.ppid = ppid;
    state.startTime = start;
    state.uid = state.euid = state.suid = uid;
    state.gid = state.egid = state.sgid = gid;
    return state;
}

ProcEvent Event(ProcEvent::Kind kind, int pid, int tgid, int parentTgid = 0) {
    ProcEvent event;
    event.kind = kind;
    event.pid = pid;
    event.tgid = tgid;
    event.parentTgid = parentTgid;
    return event;
}

std::vector<std::pair<int, unsigned>> Flags(const std::vector<KnownProcessTable::Change>& changes) {
    std::vector<std::pair<int, unsigned>> flags;
    for (const auto& change : changes) {
        flags.emplace_back(change.pid, change.flag);
    }
    return flags;
}

TEST(KnownProcessTable, ReconcileReportsWhatEventsMissed) {
    KnownProcessTable table;
    table.Reset({{1, Proc(0, 5, 0)},
                 {10, Proc(1, 100, 1000, 1000)},
                 {11, Proc(1, 110, 1000)},
                 {12, Proc(1, 120, 0)}});

    std::map<int, KnownProcess> live = {
        {1, Proc(0, 5, 0)},        {10, Proc(1, 100, 1000, 1000)},
        {11, Proc(1, 110, 1000)},  {12, Proc(1, 999, 0)},  // pid reused
        {20, Proc(10, 200, 1000)},                         // born while events were lost
    };
    live[10].euid = 0;  // gained root
    live[11].egid = 5;  // changed group
    auto changes = table.Reconcile(live);
    EXPECT_EQ((std::vector<std::pair<int, unsigned>>{{10, Engine::PROCS_EVENT_UID},
                                                     {11, Engine::PROCS_EVENT_GID},
                                                     {12, Engine::PROCS_EVENT_EXIT},
                                                     {12, Engine::PROCS_EVENT_FORK},
                                                     {20, Engine::PROCS_EVENT_FORK}}),
              Flags(changes));
    EXPECT_EQ(1000u, changes[0].before.euid);

    // The table took the rescan: the same state again reports nothing; a vanished pid is an exit.
    live.erase(11);
    changes = table.Reconcile(live);
    ASSERT_EQ((std::vector<std::pair<int, unsigned>>{{11, Engine::PROCS_EVENT_EXIT}}), Flags(changes));
    EXPECT_EQ(110, changes[0].before.startTime);
}

TEST(KnownProcessTable, EventsKeepTheTableCurrent) {
    KnownProcessTable table;
    table.Reset({{1, Proc(0, 5, 0)}, {10, Proc(1, 100, 1000)}});

    // A fork inherits its parent's ids, so a rescan after it sees no identity change.
    table.Apply(Event(ProcEvent::Kind::kFork, 30, 30, 10));
    // Thread events are no process events.
    table.Apply(Event(ProcEvent::Kind::kFork, 31, 30, 10));
    ProcEvent uid = Event(ProcEvent::Kind::kUid, 10, 10);
    uid.realId = 1000;
    uid.effectiveId = 0;
    table.Apply(uid);
    table.Apply(Event(ProcEvent::Kind::kExit, 1, 1));
    EXPECT_EQ(nullptr, table.Find(31));
    EXPECT_EQ(nullptr, table.Find(1));
    ASSERT_NE(nullptr, table.Find(30));
    EXPECT_EQ(10, table.Find(30)->ppid);
    EXPECT_EQ(-1, table.Find(30)->startTime);

    KnownProcess rootNow = Proc(1, 100, 1000);
    rootNow.euid = 0;
    rootNow.suid = 0;  // not carried by the event: unknown, so no change either
    const auto changes = table.Reconcile({{10, rootNow}, {30, Proc(10, 300, 1000)}});
    EXPECT_TRUE(Flags(changes).empty());
}

using Kind = ProcEvent::Kind;

std::string Sample(const std::string& kind) {
    return TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/netlink/proc_connector_" + kind);
}

TEST(ProcEventDecoder, DecodesCapturedMessagesOfEveryKind) {
    std::string buffer = " ";  // decoding must not depend on the buffer's alignment
    for (const char* name : {"fork", "exec", "gid", "exit", "none"}) {
        buffer += Sample(name);
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
