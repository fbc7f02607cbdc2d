#include "DataReportTask.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <signal.h>

#include <climits>
#include <set>
#include <utility>

#include "AlertLine.h"
#include "AlertSinkFactory.h"
#include "BuildInfo.h"
#include "framework/DataMessage.h"
#include "framework/Metrics.h"
#include "sdk/HostLog.h"

namespace Agent {

namespace {

constexpr size_t kBatchLines = 1024;
constexpr size_t kBatchBytes = 4u << 20;

void MakeParent(const std::string& dir) {
    try {
        Poco::File(Poco::Path(dir).makeParent()).createDirectories();
    } catch (const Poco::Exception& failure) {
        HOST_LOG_ERROR("cannot create the parent of the alert spool " + dir + ": " + failure.displayText());
    }
}

}  // namespace

DataReportTask::DataReportTask(const ReportSettings& settings)
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::TASK_TYPE_MESSAGE, kQueueCapacity),
      settings_(settings),
      spool_(settings.spoolDir, settings.spoolMaxBytes) {}

DataReportTask::~DataReportTask() {
    Framework::Metrics::Instance().RemoveRefreshers(this);
    for (auto& pump : pumps_) {
        pump->Stop(std::chrono::milliseconds(0));
    }
}

bool DataReportTask::OpenSpool(std::string& error) {
    MakeParent(settings_.spoolDir);
    switch (spool_.Open(error)) {
        case AlertSpool::OpenResult::kOpen:
            return true;
        case AlertSpool::OpenResult::kBusy:
            return false;
        case AlertSpool::OpenResult::kRefused:
            break;
    }
    spoolRefusal_ = error;
    nextOpen_ = std::chrono::steady_clock::now() + std::chrono::seconds(kReopenSeconds);
    HOST_CONSOLE_LOG_ERROR("alert spool refused: " + error + "; alerts wait in memory (at most " +
                           std::to_string(kHeldBytes >> 20) +
                           " MiB) and reach no sink until it is fixed; checked again every " +
                           std::to_string(kReopenSeconds) + " s");
    return true;
}

int DataReportTask::Init() {
    // However Init ends (an exception included), UnInit follows it now.
    struct MarkOnReturn {
        DataReportTask& task;
        ~MarkOnReturn() { task.MarkStarted(); }
    } markOnReturn{*this};
    // A reader that went away must show up as EPIPE on the sink threads (they
    // inherit this mask), not end the agent.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    std::string error;
    std::shared_ptr<const SiemEnvelope> envelope;
    AlertSinkPump::Timing timing;
    timing.retry = std::chrono::seconds(settings_.retrySeconds);
    timing.retryMax = std::chrono::seconds(std::max(settings_.retryMaxSeconds, settings_.retrySeconds));
    for (const SinkSettings& sink : settings_.AllSinks()) {
        // The same findings as --check, at once rather than at the first failed delivery.
        bool refused = false;
        for (const SinkProblem& problem : AlertSinkFactory::Check(sink)) {
            HOST_LOG_ERROR("alert sink " + sink.name + ": " + sink.KeyOf(problem.member) + ": " +
                           AlertSinkFactory::Explain(problem));
            refused = refused || problem.refusesSink;
        }
        if (refused) {
            continue;
        }
        std::unique_ptr<AlertSink> made = AlertSinkFactory::Make(sink, error);
        if (!made) {
            HOST_LOG_ERROR("alert sink " + sink.name + " (" + sink.type + ") not started: " + error);
            continue;
        }
        if (sink.envelope && !envelope) {
            envelope = std::make_shared<SiemEnvelope>(SiemEnvelope::HostName(), SiemEnvelope::MachineId(),
                                                      CORVANE_VERSION);
        }
        pumps_.push_back(std::make_unique<AlertSinkPump>(sink.name, std::move(made),
                                                         sink.envelope ? envelope : nullptr, spool_, timing));
        HOST_LOG_INFO("alert sink " + sink.name + ": " + pumps_.back()->Describe());
    }
    if (pumps_.empty()) {
        HOST_LOG_WARNING("no alert sink configured: alerts are kept in the spool only");
    }
    if (spool_.IsOpen()) {
        StartPumps();
    }
    PublishMetrics();
    return Framework::Task::Init();
}

void DataReportTask::MarkStarted() {
    {
        std::lock_guard<std::mutex> lock(startMutex_);
        started_ = true;
    }
    startedCondition_.notify_all();
}

bool DataReportTask::WaitUntilStarted(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(startMutex_);
    return startedCondition_.wait_for(lock, timeout, [this] { return started_; });
}

void DataReportTask::UnInit() {
    while (GetQueuedCount() > 0) {
        BulkConsumeMsg(INT_MAX);
    }
    FlushBatch(true);
    if (!held_.empty()) {
        HOST_LOG_ERROR(std::to_string(held_.size()) + " alerts held in memory are lost: the alert spool " +
                       settings_.spoolDir + " is still refused (" + spoolRefusal_ + ")");
        heldDropped_ += held_.size();
    }
    bool everything = heldDropped_ == 0 && spool_.GetDroppedFull() == 0 && spool_.GetDroppedEvicted() == 0 &&
                      (!pumps_.empty() || written_ == 0);
    for (auto& pump : pumps_) {
        pump->Stop(std::chrono::seconds(settings_.stopDrainSeconds));
        // A spool never opened holds nothing for the sinks; what was held in memory is counted above.
        if (spool_.IsOpen() && !pump->HasDrained()) {
            HOST_LOG_WARNING("alert sink " + pump->GetName() +
                             " stopped before it took every alert; the rest wait in " + settings_.spoolDir +
                             " for the next start");
            everything = false;
        }
    }
    deliveredEverything_ = everything;
    Framework::Task::UnInit();
}

int DataReportTask::HandleMsg(const Framework::Message* message) {
    if (message != nullptr) {
        Take(*message);
    }
    // A batch is what one pass over the queue brought: synced once, when the queue is empty.
    if (batch_.size() >= kBatchLines || batchBytes_ >= kBatchBytes ||
        (!batch_.empty() && GetQueuedCount() == 0)) {
        FlushBatch();
    }
    return 0;
}

void DataReportTask::Take(const Framework::Message& message) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(&message);
    if (data == nullptr) {
        HOST_LOG_WARNING("report task ignores message \"" + message.GetName() + "\": not a data message");
        return;
    }
    std::vector<std::string> lines;
    std::string error;
    if (data->GetBody().size() > kMaxBodyBytes) {
        error = "longer than " + std::to_string(kMaxBodyBytes) + " bytes";
    } else if (AlertLine::FromBody(data->GetBody(), kMaxAlertBytes, lines, error)) {
        // One in a thousand logged: many decoy processes can make every cycle's alert long.
        if (lines.size() > 1 && split_.fetch_add(1) % 1000 == 0) {
            HOST_LOG_WARNING("report of " + std::to_string(data->GetBody().size()) +
                             " bytes is longer than the spool takes (" + std::to_string(kMaxAlertBytes) +
                             "): spooled as " + std::to_string(lines.size()) + " alerts; " +
                             std::to_string(split_.load()) + " split so far");
        }
        for (std::string& line : lines) {
            batchBytes_ += line.size();
            batch_.push_back(std::move(line));
        }
        const uint64_t taken = ++taken_;
        if (onTaken_) {
            onTaken_(taken);
        }
        return;
    }
    // Log the first refusal and then one in a thousand, so a faulty sender cannot flood the log.
    if (refused_.fetch_add(1) % 1000 == 0) {
        HOST_LOG_ERROR("report of type \"" + data->GetType() +
                       "\" dropped, its body is not one JSON document (" + error + "); " +
                       std::to_string(refused_.load()) + " dropped so far");
    }
}

void DataReportTask::FlushBatch(bool last) {
    if (!spool_.IsOpen()) {
        RetrySpool(last);
    }
    if (batch_.empty()) {
        return;
    }
    if (!spool_.IsOpen()) {
        Hold(batch_);
    } else if (spool_.Append(batch_)) {
        written_ += batch_.size();
    }
    batch_.clear();
    batchBytes_ = 0;
}

void DataReportTask::RetrySpool(bool now) {
    const auto time = std::chrono::steady_clock::now();
    if (!now && time < nextOpen_) {
        return;
    }
    nextOpen_ = time + std::chrono::seconds(kReopenSeconds);
    std::string error;
    if (spool_.Open(error) != AlertSpool::OpenResult::kOpen) {
        if (error != spoolRefusal_) {
            HOST_LOG_ERROR("alert spool still refused: " + error);
            spoolRefusal_ = error;
        }
        return;
    }
    HOST_LOG_WARNING("alert spool " + settings_.spoolDir + " accepted; the " + std::to_string(held_.size()) +
                     " alerts held in memory go to it, and the sinks start");
    // The sinks first: one new to this spool starts at its end, which the held alerts then follow.
    StartPumps();
    const std::vector<std::string> held(held_.begin(), held_.end());
    if (spool_.Append(held)) {
        written_ += held.size();
    }
    held_.clear();
    heldBytes_ = 0;
    heldCount_ = 0;
}

void DataReportTask::Hold(std::vector<std::string>& lines) {
    for (std::string& line : lines) {
        heldBytes_ += line.size();
        held_.push_back(std::move(line));
    }
    while (heldBytes_ > kHeldBytes) {
        if (heldDropped_.fetch_add(1) % 1000 == 0) {
            HOST_LOG_ERROR("alerts held in memory for the refused spool exceed " +
                           std::to_string(kHeldBytes >> 20) + " MiB: dropping the oldest; " +
                           std::to_string(heldDropped_.load()) + " dropped so far");
        }
        heldBytes_ -= held_.front().size();
        held_.pop_front();
    }
    heldCount_ = held_.size();
}

void DataReportTask::StartPumps() {
    if (pumpsStarted_) {
        return;
    }
    pumpsStarted_ = true;
    for (auto& pump : pumps_) {
        pump->Start();
    }
}

void DataReportTask::PublishMetrics() {
    // The pumps stay as Init made them until the task is destroyed, which removes this first.
    Framework::Metrics::Instance().AddRefresher(this, [this] {
        Framework::Metrics& metrics = Framework::Metrics::Instance();
        for (const auto& pump : pumps_) {
            const Framework::MetricLabels sink{{"sink", pump->GetName()}};
            metrics.Counter("corvane_sink_alerts_delivered_total", "Alerts a sink confirmed", sink)
                .SetTotal(static_cast<double>(pump->GetDeliveredCount()));
            metrics
                .Counter("corvane_sink_delivery_failures_total", "Failed delivery attempts of a sink", sink)
                .SetTotal(static_cast<double>(pump->GetFailedCount()));
            metrics.Counter("corvane_sink_alerts_split_total", "Alerts split to fit a sink", sink)
                .SetTotal(static_cast<double>(pump->GetShaper().GetSplitCount()));
            metrics
                .Counter("corvane_sink_alerts_undeliverable_total",
                         "Alerts or process entries too long for a sink even split and cut", sink)
                .SetTotal(static_cast<double>(pump->GetShaper().GetUndeliverableCount()));
            metrics
                .Counter("corvane_sink_alerts_dead_lettered_total",
                         "Alerts a sink refused for good, moved to its dead-letter file", sink)
                .SetTotal(static_cast<double>(pump->GetDeadLetteredCount()));
        }
        metrics.Counter("corvane_report_alerts_split_total", "Alerts spooled in parts, too long for one line")
            .SetTotal(static_cast<double>(split_.load()));
        metrics.Gauge("corvane_spool_bytes", "Bytes held in the alert spool")
            .Set(static_cast<double>(spool_.GetBytes()));
        metrics
            .Counter("corvane_spool_alerts_dropped_total", "Alerts the spool dropped",
                     {{"reason", "disk_full"}})
            .SetTotal(static_cast<double>(spool_.GetDroppedFull()));
        metrics
            .Counter("corvane_spool_alerts_dropped_total", "Alerts the spool dropped",
                     {{"reason", "max_bytes"}})
            .SetTotal(static_cast<double>(spool_.GetDroppedEvicted()));
        metrics
            .Counter("corvane_spool_alerts_dropped_total", "Alerts the spool dropped",
                     {{"reason", "damaged"}})
            .SetTotal(static_cast<double>(spool_.GetDroppedDamaged()));
        metrics
            .Counter("corvane_spool_alerts_dropped_total", "Alerts the spool dropped",
                     {{"reason", "spool_refused"}})
            .SetTotal(static_cast<double>(heldDropped_.load()));
        metrics
            .Counter("corvane_spool_lost_bytes_total",
                     "Bytes of damaged lines and missing stretches the spool skipped")
            .SetTotal(static_cast<double>(spool_.GetLostBytes()));
        metrics.Gauge("corvane_report_alerts_held", "Alerts waiting in memory for a refused spool")
            .Set(static_cast<double>(heldCount_.load()));
    });
}

void DataReportTask::ReopenSinks() {
    for (auto& pump : pumps_) {
        pump->RequestReopen();
    }
}

}  // namespace Agent
