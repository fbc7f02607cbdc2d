#include "ProcEventDecoder.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace Engine {

namespace {

template <typename T>
T Load(const unsigned char* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// In C++ the kernel's per-kind structs live in proc_event's unnamed union.
using EventData = decltype(std::declval<proc_event>().event_data);
using fork_proc_event = decltype(std::declval<EventData>().fork);
using exec_proc_event = decltype(std::declval<EventData>().exec);
using id_proc_event = decltype(std::declval<EventData>().id);
using exit_proc_event = decltype(std::declval<EventData>().exit);
using comm_proc_event = decltype(std::declval<EventData>().comm);

constexpr size_t kEventHeader = offsetof(proc_event, event_data);

// Bytes of event_data that each kind needs; the exit event's parent fields are
// newer than the rest and optional.
size_t NeededPayload(uint32_t what) {
    switch (what) {
        case proc_event::PROC_EVENT_NONE:
            return sizeof(uint32_t);  // ack.err
        case proc_event::PROC_EVENT_FORK:
            return sizeof(fork_proc_event);
        case proc_event::PROC_EVENT_EXEC:
            return sizeof(exec_proc_event);
        case proc_event::PROC_EVENT_UID:
        case proc_event::PROC_EVENT_GID:
            return sizeof(id_proc_event);
        case proc_event::PROC_EVENT_COMM:
            return offsetof(comm_proc_event, comm);
        case proc_event::PROC_EVENT_EXIT:
            return offsetof(exit_proc_event, parent_pid);
        default:
            return 0;
    }
}

bool DecodeEvent(const unsigned char* at, size_t length, ProcEvent& event) {
    if (length < kEventHeader) {
        return false;
    }
    const uint32_t what = Load<uint32_t>(at + offsetof(proc_event, what));
    const size_t payload = length - kEventHeader;
    if (payload < NeededPayload(what)) {
        return false;
    }
    const unsigned char* data = at + kEventHeader;
    event = ProcEvent();
    event.timestampNs = Load<uint64_t>(at + offsetof(proc_event, timestamp_ns));
    switch (what) {
        case proc_event::PROC_EVENT_NONE:
            event.kind = ProcEvent::Kind::kAck;
            event.realId = Load<uint32_t>(data);
            break;
        case proc_event::PROC_EVENT_FORK:
            event.kind = ProcEvent::Kind::kFork;
            event.parentPid = Load<int32_t>(data + offsetof(fork_proc_event, parent_pid));
            event.parentTgid = Load<int32_t>(data + offsetof(fork_proc_event, parent_tgid));
            event.pid = Load<int32_t>(data + offsetof(fork_proc_event, child_pid));
            event.tgid = Load<int32_t>(data + offsetof(fork_proc_event, child_tgid));
            break;
        case proc_event::PROC_EVENT_EXEC:
            event.kind = ProcEvent::Kind::kExec;
            event.pid = Load<int32_t>(data + offsetof(exec_proc_event, process_pid));
            event.tgid = Load<int32_t>(data + offsetof(exec_proc_event, process_tgid));
            break;
        case proc_event::PROC_EVENT_UID:
        case proc_event::PROC_EVENT_GID:
            event.kind = what == proc_event::PROC_EVENT_UID ? ProcEvent::Kind::kUid : ProcEvent::Kind::kGid;
            event.pid = Load<int32_t>(data + offsetof(id_proc_event, process_pid));
            event.tgid = Load<int32_t>(data + offsetof(id_proc_event, process_tgid));
            event.realId = Load<uint32_t>(data + offsetof(id_proc_event, r));
            event.effectiveId = Load<uint32_t>(data + offsetof(id_proc_event, e));
            break;
        case proc_event::PROC_EVENT_COMM:
            event.kind = ProcEvent::Kind::kComm;
            event.pid = Load<int32_t>(data + offsetof(comm_proc_event, process_pid));
            event.tgid = Load<int32_t>(data + offsetof(comm_proc_event, process_tgid));
            break;
        case proc_event::PROC_EVENT_EXIT:
            event.kind = ProcEvent::Kind::kExit;
            event.pid = Load<int32_t>(data + offsetof(exit_proc_event, process_pid));
            event.tgid = Load<int32_t>(data + offsetof(exit_proc_event, process_tgid));
            if (payload >= sizeof(exit_proc_event)) {
                event.parentPid = Load<int32_t>(data + offsetof(exit_proc_event, parent_pid));
                event.parentTgid = Load<int32_t>(data + offsetof(exit_proc_event, parent_tgid));
            }
            break;
        default:
            event.kind = ProcEvent::Kind::kOther;
            break;
    }
    return true;
}

}  // namespace

ProcEventDecoder::Result ProcEventDecoder::Decode(const void* data, size_t length,
                                                  std::vector<ProcEvent>& out) {
    Result result;
    const auto* bytes = static_cast<const unsigned char*>(data);
    size_t offset = 0;
    while (offset + NLMSG_HDRLEN <= length) {
        const auto header = Load<nlmsghdr>(bytes + offset);
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > length - offset) {
            ++result.malformed;  // the rest of the buffer cannot be framed
            break;
        }
        const unsigned char* message = bytes + offset + NLMSG_HDRLEN;
        const size_t messageLength = header.nlmsg_len - NLMSG_HDRLEN;
        offset += NLMSG_ALIGN(header.nlmsg_len);
        if (header.nlmsg_type == NLMSG_NOOP || header.nlmsg_type == NLMSG_ERROR) {
            continue;
        }
        if (messageLength < sizeof(cn_msg)) {
            ++result.malformed;
            continue;
        }
        const auto connector = Load<cn_msg>(message);
        if (connector.id.idx != CN_IDX_PROC || connector.id.val != CN_VAL_PROC ||
            connector.len > messageLength - sizeof(cn_msg)) {
            ++result.malformed;
            continue;
        }
        ProcEvent event;
        if (!DecodeEvent(message + sizeof(cn_msg), connector.len, event)) {
            ++result.malformed;
            continue;
        }
        out.push_back(event);
        ++result.events;
    }
    return result;
}

}  // namespace Engine
