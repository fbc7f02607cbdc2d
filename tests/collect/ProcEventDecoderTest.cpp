// The process-connector decoder on synthetic netlink buffers.
#include <gtest/gtest.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <cstring>
#include <vector>

#include "ProcEventDecoder.h"

namespace {

using Engine::ProcEvent;
using Engine::ProcEventDecoder;

// Appends one netlink message carrying a connector message with `event`, whose
// payload is cut to `eventBytes`.
void AppendMessage(std::vector<unsigned char>& buffer, const proc_event& event, size_t eventBytes,
                   unsigned idx = CN_IDX_PROC) {
    const size_t length = NLMSG_HDRLEN + sizeof(cn_msg) + eventBytes;
    nlmsghdr header{};
    header.nlmsg_len = static_cast<unsigned>(length);
    header.nlmsg_type = NLMSG_DONE;
    cn_msg connector{};
    connector.id.idx = idx;
    connector.id.val = CN_VAL_PROC;
    connector.len = static_cast<unsigned short>(eventBytes);
    const size_t start = buffer.size();
    buffer.resize(start + NLMSG_ALIGN(length));
    std::memcpy(&buffer[start], &header, sizeof header);
    std::memcpy(&buffer[start + NLMSG_HDRLEN], &connector, sizeof connector);
    std::memcpy(&buffer[start + NLMSG_HDRLEN + sizeof connector], &event, eventBytes);
}

proc_event Fork(int parentPid, int parentTgid, int childPid, int childTgid) {
    proc_event event{};
    event.what = proc_event::PROC_EVENT_FORK;
    event.timestamp_ns = 123456789;
    event.event_data.fork.parent_pid = parentPid;
    event.event_data.fork.parent_tgid = parentTgid;
    event.event_data.fork.child_pid = childPid;
    event.event_data.fork.child_tgid = childTgid;
    return event;
}

TEST(ProcEventDecoder, DecodesEveryKindFromOneBuffer) {
    std::vector<unsigned char> buffer;
    AppendMessage(buffer, Fork(100, 100, 200, 200), sizeof(proc_event));

    proc_event uid{};
    uid.what = proc_event::PROC_EVENT_UID;
    uid.event_data.id.process_pid = 201;
    uid.event_data.id.process_tgid = 200;
    uid.event_data.id.r.ruid = 1000;
    uid.event_data.id.e.euid = 0;
    AppendMessage(buffer, uid, sizeof(proc_event));

    proc_event gid = uid;
    gid.what = proc_event::PROC_EVENT_GID;
    gid.event_data.id.r.rgid = 50;
    gid.event_data.id.e.egid = 51;
    AppendMessage(buffer, gid, sizeof(proc_event));

    // An exit event from a kernel without the parent fields.
    proc_event exitEvent{};
    exitEvent.what = proc_event::PROC_EVENT_EXIT;
    exitEvent.event_data.exit.process_pid = 200;
    exitEvent.event_data.exit.process_tgid = 200;
    exitEvent.event_data.exit.parent_pid = 999;  // cut off below
    AppendMessage(buffer, exitEvent, offsetof(proc_event, event_data) + 16);

    proc_event ack{};
    ack.what = proc_event::PROC_EVENT_NONE;
    ack.event_data.ack.err = 1;  // EPERM
    AppendMessage(buffer, ack, sizeof(proc_event));

    // Decoding must not depend on the buffer's alignment.
    std::vector<unsigned char> shifted(buffer.size() + 1);
    std::memcpy(shifted.data() + 1, buffer.data(), buffer.size());
    std::vector<ProcEvent> events;
    const auto result = ProcEventDecoder::Decode(shifted.data() + 1, buffer.size(), events);
    EXPECT_EQ(0u, result.malformed);
    ASSERT_EQ(5u, result.events);
    ASSERT_EQ(5u, events.size());

    EXPECT_EQ(ProcEvent::Kind::kFork, events[0].kind);
    EXPECT_EQ(200, events[0].pid);
    EXPECT_EQ(200, events[0].tgid);
    EXPECT_EQ(100, events[0].parentTgid);
    EXPECT_EQ(123456789u, events[0].timestampNs);
    EXPECT_TRUE(events[0].IsProcessLevel());

    EXPECT_EQ(ProcEvent::Kind::kUid, events[1].kind);
    EXPECT_EQ(201, events[1].pid);
    EXPECT_EQ(200, events[1].tgid);
    EXPECT_EQ(1000u, events[1].realId);
    EXPECT_EQ(0u, events[1].effectiveId);
    EXPECT_FALSE(events[1].IsProcessLevel());

    EXPECT_EQ(ProcEvent::Kind::kGid, events[2].kind);
    EXPECT_EQ(50u, events[2].realId);
    EXPECT_EQ(51u, events[2].effectiveId);

    EXPECT_EQ(ProcEvent::Kind::kExit, events[3].kind);
    EXPECT_EQ(200, events[3].tgid);
    EXPECT_EQ(0, events[3].parentTgid);

    EXPECT_EQ(ProcEvent::Kind::kAck, events[4].kind);
    EXPECT_EQ(1u, events[4].realId);
}

}  // namespace
