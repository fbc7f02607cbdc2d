#include "EventRecordReader.h"

#include <utility>

namespace Engine {

namespace {

// Parents that fork, with their command lines (at most 4 KiB each): a host has tens.
constexpr size_t kParentCacheLimit = 512;
constexpr unsigned int kUnknownId = 0xFFFFFFFFu;

}  // namespace

EventRecordReader::EventRecordReader(ProcTableScanner& scanner, const KnownProcessTable& known)
    : scanner_(scanner), known_(known) {}

std::shared_ptr<ProcsMessage::procInfo> EventRecordReader::Read(int pid) {
    auto record = std::make_shared<ProcsMessage::procInfo>();
    if (!scanner_.ReadRecord(pid, ProcFsReader::kAll, *record)) {
        return nullptr;
    }
    FillParentFields(*record);
    return record;
}

std::shared_ptr<ProcsMessage::procInfo> EventRecordReader::FromEvent(const ProcEvent& event,
                                                                     unsigned int flag) {
    auto record = std::make_shared<ProcsMessage::procInfo>();
    record->pid = event.tgid;
    if (flag == PROCS_EVENT_FORK || (flag == PROCS_EVENT_EXIT && event.parentTgid > 0)) {
        record->ppid = event.parentTgid;
    } else if (const KnownProcess* state = known_.Find(event.tgid)) {
        record->ppid = state->ppid;
    }
    if (flag == PROCS_EVENT_UID) {
        record->uid = event.realId;
        record->euid = event.effectiveId;
    } else if (flag == PROCS_EVENT_GID) {
        record->gid = event.realId;
        record->egid = event.effectiveId;
    }
    FillParentFields(*record);
    return record;
}

std::shared_ptr<ProcsMessage::procInfo> EventRecordReader::FromKnown(int pid, const KnownProcess& state) {
    auto record = std::make_shared<ProcsMessage::procInfo>();
    record->pid = pid;
    record->ppid = state.ppid;
    record->startTime = state.startTime > 0 ? state.startTime : 0;
    record->uid = state.uid;
    record->euid = state.euid;
    record->suid = state.suid;
    record->gid = state.gid;
    record->egid = state.egid;
    record->sgid = state.sgid;
    return record;
}

const EventRecordReader::ParentFacts* EventRecordReader::FindParent(int ppid) {
    if (ppid <= 0) {
        return nullptr;
    }
    const auto cached = parents_.find(ppid);
    if (cached != parents_.end()) {
        return &cached->second;
    }
    ProcsMessage::procInfo parent;
    if (!scanner_.ReadRecord(ppid, ProcFsReader::kExe | ProcFsReader::kCmdline, parent)) {
        return nullptr;
    }
    if (parents_.size() >= kParentCacheLimit) {
        parents_.clear();
    }
    ParentFacts facts{parent.startTime, std::move(parent.exePath), std::move(parent.cmdline)};
    return &parents_.emplace(ppid, std::move(facts)).first->second;
}

void EventRecordReader::FillParentFields(ProcsMessage::procInfo& record) {
    if (const ParentFacts* parent = FindParent(record.ppid)) {
        record.parentStartTime = parent->startTime;
        record.parentExePath = parent->exePath;
    }
}

std::shared_ptr<ProcsMessage::procInfo> EventRecordReader::ReadFork(int pid, int parentPid, bool& movedOn) {
    auto record = std::make_shared<ProcsMessage::procInfo>();
    // The status before the executable link: an exec shows its new program before
    // it commits the new credentials, so a child that still runs its parent's
    // program after its status was read had its fork-time credentials in it.
    if (!scanner_.ReadRecord(pid, ProcFsReader::kStatus | ProcFsReader::kExe, *record)) {
        return nullptr;
    }
    const ParentFacts* parent = record->ppid == parentPid ? FindParent(parentPid) : nullptr;
    if (parent == nullptr) {
        // Given to another parent already, so its parent is gone: its own files say
        // more, and what it ran since is unknown.
        movedOn = true;
        return Read(pid);
    }
    movedOn = record->exePath != parent->exePath;
    record->exePath = parent->exePath;
    record->cmdline = parent->cmdline;
    record->parentExePath = parent->exePath;
    record->parentStartTime = parent->startTime;
    return record;
}

void EventRecordReader::TakeCredentialsAtFork(ProcsMessage::procInfo& record, int parentPid) {
    ProcsMessage::procInfo parent;
    const bool read = scanner_.ReadRecord(parentPid, ProcFsReader::kStatus, parent) &&
                      (record.parentStartTime == 0 || parent.startTime == record.parentStartTime);
    KnownProcess state;
    if (read) {
        state = KnownProcess::FromRecord(parent);
    } else if (const KnownProcess* known = known_.Find(parentPid)) {
        state = *known;
    } else {
        return;  // nothing better than what the child shows
    }
    if (state.euid == kUnknownId || state.egid == kUnknownId) {
        return;  // unknown is no better
    }
    record.uid = state.uid;
    record.euid = state.euid;
    record.suid = state.suid;
    record.gid = state.gid;
    record.egid = state.egid;
    record.sgid = state.sgid;
    record.capSetuid = state.capSetuid;
    record.capSetgid = state.capSetgid;
}

bool EventRecordReader::RunsAnotherProgramThanItsParent(const ProcsMessage::procInfo& record) {
    const ParentFacts* parent = FindParent(record.ppid);
    return parent == nullptr || parent->exePath != record.exePath;
}

}  // namespace Engine
