#include "ProcsRealTask.h"

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <utility>

#include "ProcChangeLog.h"
#include "ProcConnectorReader.h"
#include "ProcessCollectModule.h"
#include "SteadyClock.h"
#include "framework/Metrics.h"
#include "sdk/HostLog.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

constexpr long long kPollIntervalMs = 1000;
constexpr long long kLogIntervalMs = 10000;  // repeated trouble is summed up at most this often
constexpr size_t kEventsPerBatch = 1024;
// Messages are handed to the subscribers once the socket is drained (or this many
// are waiting): waking a subscriber mid-batch tends to cost the producer its CPU
// for milliseconds on a busy machine, while the kernel's events pile up.
constexpr size_t kOutboxLimit = 64;
// After a batch of events the producer lets the kernel gather the next ones this
// long instead of waking for each: a storm then costs a wake-up per batch, not
// per event (the receive buffer holds seconds of a storm).
constexpr long kCoalesceMs = 10;
constexpr int kIdleWaitMs = 1000;

// The kernel's process connector names processes by their pids in the initial pid
// namespace, whose namespace file has this fixed inode number. An agent in a pid
// namespace of its own (a container) sees other pids in its /proc, so every event
// would name a process that does not exist there, or another one.
constexpr ino_t kInitialPidNamespaceInode = 0xEFFFFFFCu;

// Empty when the connector's pids are the agent's own; else why not.
std::string PidNamespaceMismatch() {
    struct stat own {};
    if (::stat("/proc/self/ns/pid", &own) != 0 || own.st_ino == kInitialPidNamespaceInode) {
        return "";  // kernels without namespace files have only the one
    }
    return "the agent runs in pid namespace " + std::to_string(own.st_ino) +
           " of its own, and the kernel process connector reports the host's pids";
}

// What a message holds on the heap: the message, its record, their shared_ptr
// control blocks and the record's strings beyond their inline buffers.
size_t MessageBytes(const ProcsMessage::procInfo& record) {
    constexpr size_t kControlBlocks = 2 * 32;
    size_t bytes = sizeof(ProcsMessage) + sizeof(ProcsMessage::procInfo) + kControlBlocks;
    for (const std::string* text : {&record.name, &record.exePath, &record.cmdline, &record.parentExePath}) {
        if (text->capacity() > std::string().capacity()) {
            bytes += text->capacity() + 1;
        }
    }
    return bytes;
}

unsigned int FlagOf(ProcEvent::Kind kind) {
    switch (kind) {
        case ProcEvent::Kind::kFork:
            return PROCS_EVENT_FORK;
        case ProcEvent::Kind::kExec:
            return PROCS_EVENT_EXEC;
        case ProcEvent::Kind::kUid:
            return PROCS_EVENT_UID;
        case ProcEvent::Kind::kGid:
            return PROCS_EVENT_GID;
        case ProcEvent::Kind::kExit:
            return PROCS_EVENT_EXIT;
        default:
            return 0;
    }
}

}  // namespace

ProcsRealTask::ProcsRealTask(size_t backlogLimitBytes)
    : MixedTask(kTaskName, "procs_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                kQueueCapacity),
      wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      dispatcher_(backlogLimitBytes) {
    if (wakeFd_ < 0) {
        // Still correct without it: an idle wait then ends at its timeout.
        HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                              std::string("eventfd for the event task: ") + std::strerror(errno));
    }
}

ProcsRealTask::~ProcsRealTask() {
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
    }
}

void ProcsRealTask::Wake() const {
    if (wakeFd_ >= 0) {
        const uint64_t one = 1;
        (void)!::write(wakeFd_, &one, sizeof one);  // a full counter is already a wake-up
    }
}

void ProcsRealTask::cancel() {
    MixedTask::cancel();
    Wake();
}

bool ProcsRealTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    if (dynamic_cast<ProcsRegistMessage*>(message.get()) != nullptr ||
        dynamic_cast<ProcsUnRegistMessage*>(message.get()) != nullptr) {
        std::lock_guard<std::mutex> lock(pendingMutex_);
        pending_.push_back(message);
        Wake();
        return true;
    }
    return MixedTask::InterceptMsg(message);
}

void ProcsRealTask::ApplyPendingSubscriptions() {
    std::vector<std::shared_ptr<Framework::Message>> pending;
    {
        std::lock_guard<std::mutex> lock(pendingMutex_);
        pending.swap(pending_);
    }
    for (const auto& message : pending) {
        // The message keeps the framework's consumer list and the subscription table;
        // the dispatcher is what actually delivers.
        message->MessageHandle(static_cast<Framework::Task*>(this));
        if (const auto* regist = dynamic_cast<const ProcsRegistMessage*>(message.get())) {
            dispatcher_.Subscribe(regist->GetRequester(), regist->GetFlag());
        } else if (const auto* unregist = dynamic_cast<const ProcsUnRegistMessage*>(message.get())) {
            dispatcher_.Unsubscribe(unregist->GetRequester(), unregist->GetFlag());
        }
    }
    BulkConsumeMsg(64);  // nothing else is expected here; keep the queue from filling up
}

void ProcsRealTask::EnsureScanner() {
    const std::string& root = SDK::ProcessUtils::GetProcRoot();
    if (!scanner_ || scanner_->GetRoot() != root) {
        scanner_ = std::make_unique<ProcTableScanner>(root);
        records_ = std::make_unique<EventRecordReader>(*scanner_, known_);
    }
}

int ProcsRealTask::Run() {
    EnsureScanner();
    ProcConnectorReader reader;
    std::string detail = PidNamespaceMismatch();
    const bool namespaced = !detail.empty();
    const auto opened = namespaced ? ProcConnectorReader::OpenResult::kFailed : reader.Open(detail);
    if (namespaced) {
        HOST_MODULE_LOG_INFO(
            kProcessCollectModuleName,
            detail + ": rescanning /proc every second instead; exec events are not reported");
    } else if (opened == ProcConnectorReader::OpenResult::kOk) {
        HOST_MODULE_LOG_INFO(kProcessCollectModuleName,
                             "process events from the kernel process connector, receive buffer " +
                                 std::to_string(reader.GetReceiveBufferBytes()) + " bytes");
    } else {
        HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                              std::string(opened == ProcConnectorReader::OpenResult::kNoPrivilege
                                              ? "no privilege for the kernel process connector ("
                                              : "kernel process connector unavailable (") +
                                  detail +
                                  "): rescanning /proc every second instead; exec events are not reported");
    }
    // The baseline is taken once the socket listens, so no process falls in between.
    known_.Reset(ScanIdentities());
    Framework::Metrics::Instance().AddRefresher(this, [this] { PublishCounters(); });
    counters_.polling = opened != ProcConnectorReader::OpenResult::kOk;
    UpdateCounters();
    if (changeLog_) {
        changeLog_->SetLive(opened == ProcConnectorReader::OpenResult::kOk);
    }
    ready_.store(true);
    if (opened != ProcConnectorReader::OpenResult::kOk || !RunConnector(reader)) {
        if (changeLog_) {
            changeLog_->SetLive(false);
        }
        reader.Close();
        RunPolling();
    }
    // Unsubscriptions sent by consumers that stopped before this task are applied, so
    // that their references are released while their modules are still loaded.
    ApplyPendingSubscriptions();
    if (changeLog_) {
        changeLog_->SetLive(false);
    }
    ready_.store(false);
    Framework::Metrics::Instance().RemoveRefreshers(this);
    return 0;
}

void ProcsRealTask::PublishCounters() const {
    const Counters counters = GetCounters();
    Framework::Metrics& metrics = Framework::Metrics::Instance();
    metrics.Counter("corvane_kernel_process_events_total", "Process-level events received from the kernel")
        .SetTotal(static_cast<double>(counters.events));
    metrics
        .Counter("corvane_kernel_events_lost_total",
                 "Receive buffer overruns (ENOBUFS): events lost by the kernel")
        .SetTotal(static_cast<double>(counters.overruns));
    metrics
        .Counter("corvane_process_rescans_total", "Resynchronisations: /proc rescans after losses, or polls")
        .SetTotal(static_cast<double>(counters.rescans));
    metrics
        .Counter("corvane_process_records_partial_total",
                 "Process messages whose record was built from the event: the process was gone when read")
        .SetTotal(static_cast<double>(counters.partial));
    metrics.Counter("corvane_subscriber_messages_dropped_total", "Process messages dropped at a full backlog")
        .SetTotal(static_cast<double>(counters.dropped));
    metrics.Gauge("corvane_subscriber_backlog_messages", "Process messages held back for slow subscribers")
        .Set(static_cast<double>(counters.backlog));
    metrics.Gauge("corvane_process_events_polling", "1 when /proc is polled instead of the kernel connector")
        .Set(counters.polling ? 1 : 0);
}

bool ProcsRealTask::RunConnector(ProcConnectorReader& reader) {
    long long lastOverrunLog = -kLogIntervalMs;
    unsigned long overrunsLogged = 0;
    long long lastErrorLog = 0;
    while (!IsStopRequested()) {
        MarkProgress();
        ApplyPendingSubscriptions();
        // With a backlog waiting, come back soon to offer it again; otherwise events,
        // a subscription or a stop end the wait, and the timeout only paces the
        // watchdog's progress mark.
        const int timeoutMs = dispatcher_.GetBacklogSize() > 0 ? 5 : kIdleWaitMs;
        std::string detail;
        events_.clear();
        const auto result = reader.Receive(timeoutMs, kEventsPerBatch, events_, detail, wakeFd_);
        IndexChanges();
        for (size_t index = 0; index < events_.size(); ++index) {
            const ProcEvent& event = events_[index];
            if (event.kind == ProcEvent::Kind::kAck && event.realId != 0) {
                HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                                      "the kernel refused process events (error " +
                                          std::to_string(event.realId) +
                                          "): rescanning /proc every second instead");
                return false;
            }
            HandleEvent(event, ChangesAfter(event, index));
        }
        FlushChangeNotes();
        if (result == ProcConnectorReader::ReadResult::kOverrun) {
            if (changeLog_) {
                changeLog_->NoteLost();
            }
            ++counters_.overruns;
            const long long now = SteadyNowMs();
            if (now - lastOverrunLog >= kLogIntervalMs) {
                HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                                      "process events lost by the kernel (" +
                                          std::to_string(counters_.overruns - overrunsLogged) +
                                          " receive buffer overruns); rescanning /proc to catch up");
                lastOverrunLog = now;
                overrunsLogged = counters_.overruns;
            }
            Rescan();
        } else if (result == ProcConnectorReader::ReadResult::kFailed) {
            HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                                  detail + ": rescanning /proc every second instead");
            return false;
        }
        FlushOutbox();
        dispatcher_.Offer();
        UpdateCounters();
        const long long now = SteadyNowMs();
        if (now - lastErrorLog >= kLogIntervalMs && scanner_->GetErrorCount() > 0) {
            HOST_MODULE_LOG_ERROR(
                kProcessCollectModuleName,
                "reading processes after events: " + std::to_string(scanner_->GetErrorCount()) +
                    " read errors, the first: " + scanner_->GetFirstError());
            scanner_->ResetErrors();
            lastErrorLog = now;
        }
        if (!events_.empty() && events_.size() < kEventsPerBatch && dispatcher_.GetBacklogSize() == 0 &&
            sleep(kCoalesceMs)) {
            break;
        }
    }
    return true;
}

void ProcsRealTask::RunPolling() {
    counters_.polling = true;
    long long nextScan = 0;
    while (!IsStopRequested()) {
        ApplyPendingSubscriptions();
        const long long now = SteadyNowMs();
        if (now >= nextScan) {
            Rescan();
            nextScan = now + kPollIntervalMs;
        }
        FlushOutbox();
        dispatcher_.Offer();
        UpdateCounters();
        if (sleep(dispatcher_.GetBacklogSize() > 0 ? 5 : 50)) {
            break;
        }
    }
}

void ProcsRealTask::NoteChange(const ProcEvent& event) {
    if (!changeLog_ || !event.IsProcessLevel()) {
        return;
    }
    switch (event.kind) {
        case ProcEvent::Kind::kFork:
        case ProcEvent::Kind::kExec:
        case ProcEvent::Kind::kUid:
        case ProcEvent::Kind::kGid:
        case ProcEvent::Kind::kComm:
            changedPids_.push_back(event.tgid);
            break;
        case ProcEvent::Kind::kExit:
            exitedPids_.push_back(event.tgid);
            break;
        default:
            break;
    }
}

void ProcsRealTask::FlushChangeNotes() {
    if (!changeLog_) {
        return;
    }
    if (!changedPids_.empty()) {
        changeLog_->NoteChanged(changedPids_);
        changedPids_.clear();
    }
    if (!exitedPids_.empty()) {
        changeLog_->NoteExited(exitedPids_);
        exitedPids_.clear();
    }
}

void ProcsRealTask::IndexChanges() {
    lastChange_.clear();
    for (size_t index = 0; index < events_.size(); ++index) {
        const ProcEvent& event = events_[index];
        if (event.IsProcessLevel() &&
            (event.kind == ProcEvent::Kind::kExec || event.kind == ProcEvent::Kind::kUid ||
             event.kind == ProcEvent::Kind::kGid)) {
            lastChange_[event.tgid] = index;
        }
    }
}

bool ProcsRealTask::ChangesAfter(const ProcEvent& event, size_t index) const {
    const auto last = lastChange_.find(event.tgid);
    return last != lastChange_.end() && last->second > index;
}

void ProcsRealTask::HandleEvent(const ProcEvent& event, bool changesLater) {
    NoteChange(event);
    const unsigned int flag = FlagOf(event.kind);
    // Thread creation and thread exit are no process events.
    if (flag == 0 || !event.IsProcessLevel()) {
        return;
    }
    ++counters_.events;
    const int pid = event.tgid;
    if (flag == PROCS_EVENT_EXEC || flag == PROCS_EVENT_EXIT) {
        records_->ForgetParent(pid);
    }
    if (flag == PROCS_EVENT_EXIT) {
        if (dispatcher_.Wants(flag)) {
            const KnownProcess* state = known_.Find(pid);
            Publish(pid, flag,
                    state != nullptr ? EventRecordReader::FromKnown(pid, *state)
                                     : records_->FromEvent(event, flag));
        }
        known_.Apply(event);
        return;
    }
    // A fork the last rescan already published carries the start time it saw.
    int64_t rescannedStart = -1;
    if (flag == PROCS_EVENT_FORK) {
        if (const KnownProcess* state = known_.Find(pid)) {
            rescannedStart = state->startTime;
        }
    }
    known_.Apply(event);
    if (!dispatcher_.Wants(flag)) {
        return;
    }
    bool movedOn = false;
    std::shared_ptr<ProcsMessage::procInfo> record =
        flag == PROCS_EVENT_FORK ? records_->ReadFork(pid, event.parentTgid, movedOn) : records_->Read(pid);
    if (record) {
        // The table keeps what the process is now; the message tells what the event saw.
        known_.Update(pid, KnownProcess::FromRecord(*record));
        if (rescannedStart >= 0 && record->startTime == rescannedStart) {
            return;
        }
        if (flag == PROCS_EVENT_FORK && (movedOn || changesLater)) {
            records_->TakeCredentialsAtFork(*record, event.parentTgid);
        } else if (flag == PROCS_EVENT_UID) {
            record->uid = event.realId;
            record->euid = event.effectiveId;
        } else if (flag == PROCS_EVENT_GID) {
            record->gid = event.realId;
            record->egid = event.effectiveId;
        }
    } else {
        record = records_->FromEvent(event, flag);
        ++counters_.partial;
    }
    Publish(pid, flag, std::move(record));
}

std::map<int, KnownProcess> ProcsRealTask::ScanIdentities() {
    EnsureScanner();
    std::map<int, KnownProcess> live;
    std::vector<int> pids;
    std::string error;
    if (!scanner_->ListPids(pids, error)) {
        HOST_MODULE_LOG_ERROR(kProcessCollectModuleName, "cannot list processes: " + error);
        return live;
    }
    for (const int pid : pids) {
        ProcsMessage::procInfo record;
        if (scanner_->ReadRecord(pid, ProcFsReader::kStatus, record)) {
            live.emplace_hint(live.end(), pid, KnownProcess::FromRecord(record));
        }
    }
    return live;
}

void ProcsRealTask::Rescan() {
    ++counters_.rescans;
    records_->ForgetParents();  // exec and exit events may have been lost
    std::map<int, KnownProcess> live = ScanIdentities();
    for (const auto& change : known_.Reconcile(live)) {
        if (!dispatcher_.Wants(change.flag)) {
            continue;
        }
        if (change.flag == PROCS_EVENT_EXIT) {
            Publish(change.pid, change.flag, EventRecordReader::FromKnown(change.pid, change.before));
            continue;
        }
        std::shared_ptr<ProcsMessage::procInfo> record = records_->Read(change.pid);
        if (!record) {
            record = EventRecordReader::FromKnown(change.pid, live[change.pid]);
            ++counters_.partial;
        } else if (change.flag == PROCS_EVENT_FORK) {
            // Found a while after its fork: a child that no longer runs its parent's
            // program has executed another, which may have changed its credentials.
            if (records_->RunsAnotherProgramThanItsParent(*record)) {
                records_->TakeCredentialsAtFork(*record, record->ppid);
            }
        }
        Publish(change.pid, change.flag, std::move(record));
    }
    if (scanner_->GetErrorCount() > 0) {
        HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                              "process rescan: " + std::to_string(scanner_->GetErrorCount()) +
                                  " read errors, the first: " + scanner_->GetFirstError());
        scanner_->ResetErrors();
    }
}

void ProcsRealTask::Publish(int pid, unsigned int flag, std::shared_ptr<ProcsMessage::procInfo> record) {
    const size_t bytes = record ? MessageBytes(*record) : sizeof(ProcsMessage);
    outbox_.push_back({flag, std::make_shared<ProcsMessage>(pid, flag, std::move(record)), bytes});
    ++counters_.published;
    if (outbox_.size() >= kOutboxLimit) {
        FlushOutbox();
    }
}

void ProcsRealTask::FlushOutbox() {
    for (const Outgoing& outgoing : outbox_) {
        dispatcher_.Publish(outgoing.flag, outgoing.message, outgoing.bytes);
    }
    outbox_.clear();
}

void ProcsRealTask::UpdateCounters() {
    counters_.backlog = dispatcher_.GetBacklogSize();
    counters_.dropped = dispatcher_.GetDroppedCount();
    std::lock_guard<std::mutex> lock(countersMutex_);
    shared_ = counters_;
}

ProcsRealTask::Counters ProcsRealTask::GetCounters() const {
    std::lock_guard<std::mutex> lock(countersMutex_);
    return shared_;
}

}  // namespace Engine
