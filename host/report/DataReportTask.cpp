#include "DataReportTask.h"

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "AlertFileSink.h"
#include "AlertLine.h"
#include "AlertStreamSink.h"
#include "framework/DataMessage.h"
#include "sdk/HostLog.h"

namespace Agent {

namespace {

// Queued by the ticker while a sink holds a backlog, so that retries run on
// the task's own thread like every other write.
class SinkRetryMessage : public Framework::Message {
public:
    SinkRetryMessage() : Framework::Message("alert_sink_retry") {}
};

std::vector<std::unique_ptr<AlertSink>> MakeSinks(const ReportSettings& settings) {
    std::vector<std::unique_ptr<AlertSink>> sinks;
    if (settings.toStdout) {
        sinks.push_back(std::make_unique<AlertStreamSink>(STDOUT_FILENO, "standard output"));
    }
    if (!settings.filePath.empty()) {
        sinks.push_back(
            std::make_unique<AlertFileSink>(settings.filePath, settings.rotateBytes, settings.keepFiles));
    }
    return sinks;
}

}  // namespace

DataReportTask::DataReportTask(const ReportSettings& settings)
    : DataReportTask(MakeSinks(settings), settings.backlogBytes, settings.retrySeconds) {}

DataReportTask::DataReportTask(std::vector<std::unique_ptr<AlertSink>> sinks, size_t backlogBytes,
                               int retrySeconds)
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::TASK_TYPE_MESSAGE, kQueueCapacity),
      retrySeconds_(retrySeconds) {
    for (auto& sink : sinks) {
        writers_.push_back(std::make_unique<AlertSinkWriter>(std::move(sink), backlogBytes));
    }
}

DataReportTask::~DataReportTask() {
    ticker_.Stop();
}

int DataReportTask::Init() {
    // A reader that went away must show up as EPIPE on this thread, not end the agent.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    if (writers_.empty()) {
        HOST_LOG_WARNING("no alert sink configured: alerts are discarded");
    }
    ticker_.Start(retrySeconds_, [this] { RequestRetry(); });
    return Framework::Task::Init();
}

void DataReportTask::UnInit() {
    ticker_.Stop();
    while (GetQueuedCount() > 0) {
        BulkConsumeMsg(INT_MAX);
    }
    for (auto& writer : writers_) {
        if (!writer->Flush()) {
            HOST_LOG_ERROR(std::to_string(writer->GetBacklogCount()) + " alerts could not be written to " +
                           writer->Describe() + " before the agent stopped");
        }
    }
    UpdateBacklogFlag();
    Framework::Task::UnInit();
}

int DataReportTask::HandleMsg(const Framework::Message* message) {
    if (message == nullptr) {
        return 0;
    }
    if (dynamic_cast<const SinkRetryMessage*>(message) != nullptr) {
        RetryBacklogs();
    } else {
        Write(*message);
    }
    UpdateBacklogFlag();
    return 0;
}

void DataReportTask::Write(const Framework::Message& message) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(&message);
    if (data == nullptr) {
        HOST_LOG_WARNING("report task ignores message \"" + message.GetName() + "\": not a data message");
        return;
    }
    std::string line;
    std::string error;
    if (!AlertLine::FromBody(data->GetBody(), line, error)) {
        // Log the first refusal and then one in a thousand, so a faulty sender cannot flood the log.
        if (refused_.fetch_add(1) % 1000 == 0) {
            HOST_LOG_ERROR("report of type \"" + data->GetType() +
                           "\" dropped, its body is not one JSON document (" + error + "); " +
                           std::to_string(refused_.load()) + " dropped so far");
        }
        return;
    }
    for (auto& writer : writers_) {
        writer->Add(line);
    }
    written_.fetch_add(1);
}

void DataReportTask::RetryBacklogs() {
    for (auto& writer : writers_) {
        writer->Flush();
    }
}

void DataReportTask::UpdateBacklogFlag() {
    bool backlog = false;
    for (const auto& writer : writers_) {
        backlog = backlog || writer->HasBacklog();
    }
    backlog_.store(backlog);
}

void DataReportTask::RequestRetry() {
    if (!backlog_.load()) {
        return;
    }
    std::shared_ptr<Framework::Message> retry = std::make_shared<SinkRetryMessage>();
    EnqueueMsg(retry);
}

}  // namespace Agent
