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
#include "framework/DataMessage.h"
#include "framework/Metrics.h"
#include "sdk/HostLog.h"

#ifndef CORVANE_VERSION
#define CORVANE_VERSION "0"
#endif

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

int DataReportTask::Init() {
    // A reader that went away must show up as EPIPE on the sink threads (they
    // inherit this mask), not end the agent.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    MakeParent(settings_.spoolDir);
    std::string error;
    if (spool_.Open(error) != AlertSpool::OpenResult::kOpen) {
        HOST_LOG_ERROR("cannot open the alert spool: " + error +
                       "; alerts are dropped until it can be written");
    }
    std::shared_ptr<const SiemEnvelope> envelope;
    AlertSinkPump::Timing timing;
    timing.retry = std::chrono::seconds(settings_.retrySeconds);
    timing.retryMax = std::chrono::seconds(std::max(settings_.retryMaxSeconds, settings_.retrySeconds));
    for (const SinkSettings& sink : settings_.AllSinks()) {
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
    for (auto& pump : pumps_) {
        pump->Start();
    }
    PublishMetrics();
    return Framework::Task::Init();
}

void DataReportTask::UnInit() {
    while (GetQueuedCount() > 0) {
        BulkConsumeMsg(INT_MAX);
    }
    FlushBatch();
    for (auto& pump : pumps_) {
        pump->Stop(std::chrono::seconds(settings_.stopDrainSeconds));
    }
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
    std::string line;
    std::string error;
    if (data->GetBody().size() > kMaxAlertBytes) {
        error = "longer than " + std::to_string(kMaxAlertBytes) + " bytes";
    } else if (AlertLine::FromBody(data->GetBody(), line, error) && line.size() <= kMaxAlertBytes) {
        batchBytes_ += line.size();
        batch_.push_back(std::move(line));
        return;
    }
    // Log the first refusal and then one in a thousand, so a faulty sender cannot flood the log.
    if (refused_.fetch_add(1) % 1000 == 0) {
        HOST_LOG_ERROR("report of type \"" + data->GetType() +
                       "\" dropped, its body is not one JSON document (" + error + "); " +
                       std::to_string(refused_.load()) + " dropped so far");
    }
}

void DataReportTask::FlushBatch() {
    if (batch_.empty()) {
        return;
    }
    if (spool_.Append(batch_)) {
        written_ += batch_.size();
    }
    batch_.clear();
    batchBytes_ = 0;
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
            metrics
                .Counter("corvane_sink_alerts_dead_lettered_total",
                         "Alerts a sink refused for good, moved to its dead-letter file", sink)
                .SetTotal(static_cast<double>(pump->GetDeadLetteredCount()));
        }
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
            .Counter("corvane_spool_alerts_dropped_total", "Alerts the spool dropped", {{"reason", "damaged"}})
            .SetTotal(static_cast<double>(spool_.GetDroppedDamaged()));
        metrics
            .Counter("corvane_spool_lost_bytes_total",
                     "Bytes of damaged lines and missing stretches the spool skipped")
            .SetTotal(static_cast<double>(spool_.GetLostBytes()));
    });
}

void DataReportTask::ReopenSinks() {
    for (auto& pump : pumps_) {
        pump->RequestReopen();
    }
}

}  // namespace Agent
