#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "EventRecordReader.h"
#include "KnownProcessTable.h"
#include "ProcEvent.h"
#include "ProcTableScanner.h"
#include "SubscriberDispatcher.h"
#include "collect/MixedTask.h"

namespace Engine {

class ProcChangeLog;
class ProcConnectorReader;

// "procs_real_task": publishes process events to the tasks that subscribed to
// them with ProcsRegistMessage, each as a ProcsMessage carrying the pid and the
// process's record read from /proc right after the event. A fork's record
// describes the child as it was at the fork (its parent's program, command line
// and credentials, see ReadForkRecord); a UID or GID event's record carries the
// ids the event announced.
//
// Events delivered, by flag: PROCS_EVENT_FORK (a new process; thread creation
// is not reported), PROCS_EVENT_EXEC, PROCS_EVENT_UID, PROCS_EVENT_GID (the
// process's real/effective ids changed) and PROCS_EVENT_EXIT (the record is the
// last state the task knew: pid, ppid, identities, start time; no paths).
//
// When the process is gone before its record can be read, the event is still
// delivered, with a record built from the event itself: pid and ppid (a fork's
// parent; for the other kinds the last known parent), the new real and effective
// ids for UID/GID events, every other identity 0xFFFFFFFF (unknown), start times
// 0, empty name, paths and command line; the parent's path and start time are
// filled when the parent can still be read.
//
// Source: the kernel's process connector. Events the kernel had to drop (receive
// buffer overrun) are made up for by rescanning /proc: unknown pids are
// published as FORK, changed identities as UID/GID, vanished pids as EXIT.
// Without the privilege for the connector the task rescans /proc every second
// instead (EXEC is then not reported). A subscriber whose queue is full gets a
// backlog here (see SubscriberDispatcher), so the connector is always drained.
class ProcsRealTask : public MixedTask {
public:
    static constexpr const char* kTaskName = "procs_real_task";
    static constexpr unsigned int kQueueCapacity = 4096;

    struct Counters {
        unsigned long events = 0;     // process-level events received from the kernel
        unsigned long published = 0;  // messages published (per event, not per subscriber)
        unsigned long partial = 0;    // published with a record built from the event
        unsigned long overruns = 0;   // receive buffer overruns (events lost by the kernel)
        unsigned long rescans = 0;    // /proc rescans (after overruns, or polls)
        unsigned long dropped = 0;    // messages dropped at a full backlog
        size_t backlog = 0;           // messages held back now
        bool polling = false;         // rescanning /proc instead of the connector
    };

    explicit ProcsRealTask(size_t backlogLimitBytes = SubscriberDispatcher::kDefaultBacklogBytes);

    // The memory each subscriber's backlog may hold (collect.event_backlog_mib); from any thread.
    void SetBacklogLimit(size_t bytes) { dispatcher_.SetBacklogLimit(bytes); }

    // Notes every process that changes in `log` while events are received (for
    // the live process table); set before the task runs.
    void NoteChangesIn(std::shared_ptr<ProcChangeLog> log) { changeLog_ = std::move(log); }

    int Run() override;
    // Subscriptions are taken out of the queue and applied by Run between two
    // batches of events, on the task's own thread.
    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override;
    // Also wakes Run out of its wait for events.
    void cancel() override;

    Counters GetCounters() const;
    // Copies the counters into Framework::Metrics (run at each metrics read).
    void PublishCounters() const;
    // True once Run is receiving events (or polling); for tests and benchmarks.
    bool IsReady() const { return ready_.load(); }

protected:
    ~ProcsRealTask() override;

private:
    void ApplyPendingSubscriptions();
    bool RunConnector(ProcConnectorReader& reader);  // false: switch to polling
    void RunPolling();
    // `changesLater`: the same batch holds a later exec or identity change of the
    // event's process.
    void HandleEvent(const ProcEvent& event, bool changesLater);
    // Notes, for each process, the last exec or identity change in events_.
    void IndexChanges();
    bool ChangesAfter(const ProcEvent& event, size_t index) const;
    void NoteChange(const ProcEvent& event);
    void FlushChangeNotes();
    void Rescan();
    std::map<int, KnownProcess> ScanIdentities();
    // Queues a message for the subscribers; FlushOutbox hands the queued ones over.
    void Publish(int pid, unsigned int flag, std::shared_ptr<ProcsMessage::procInfo> record);
    void FlushOutbox();
    void EnsureScanner();
    void UpdateCounters();

    // Written when a subscription arrives or the task is cancelled, so an idle Run
    // can wait long for events and still answer at once.
    int wakeFd_ = -1;
    void Wake() const;

    std::mutex pendingMutex_;
    std::vector<std::shared_ptr<Framework::Message>> pending_;  // subscription messages

    // Touched by Run's thread only.
    SubscriberDispatcher dispatcher_;
    KnownProcessTable known_;
    std::unique_ptr<ProcTableScanner> scanner_;
    std::unique_ptr<EventRecordReader> records_;  // reads through scanner_
    std::vector<ProcEvent> events_;
    std::unordered_map<int, size_t> lastChange_;  // pid -> index in events_ of its last exec/UID/GID
    struct Outgoing {
        unsigned int flag;
        std::shared_ptr<Framework::Message> message;
        size_t bytes;
    };
    std::vector<Outgoing> outbox_;
    Counters counters_;
    std::shared_ptr<ProcChangeLog> changeLog_;
    std::vector<int> changedPids_;  // noted in changeLog_ once per batch
    std::vector<int> exitedPids_;

    mutable std::mutex countersMutex_;
    Counters shared_;  // copy of counters_ for other threads
    std::atomic<bool> ready_{false};
};

}  // namespace Engine
