// What the report task writes on a stop, and alerts too long for the spool or for a sink: split into
// complete alerts, never dropped or cut short.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "AlertLine.h"
#include "AlertSinkPump.h"
#include "AlertSpool.h"
#include "DataReportTask.h"
#include "SyslogSink.h"
#include "framework/DataMessage.h"
#include "sdk/JsonUtils.h"
#include "support/FileText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

// A behaviour alert with 60 decoys, each with 4,000 control bytes in its command line
// (24,000 bytes escaped), and the process they hide, pid 4242.
Json::Value DecoyAlert() {
    Json::Value alert;
    alert["event_id"] = "358a172f-858e-48b0-a6f7-382bca007edd";
    alert["event_classid"] = "procdet_0001";
    alert["occur_time"] = 1795456016;
    alert["severity"] = 2;
    for (int pid = 1000; pid <= 1060; ++pid) {
        Json::Value entry;
        entry["process_pid"] = pid == 1060 ? 4242 : pid;
        entry["process_path"] = pid == 1060 ? "/tmp/miner" : "/tmp/decoy";
        entry["process_cmdline"] = pid == 1060 ? "/tmp/miner" : "/tmp/decoy " + std::string(4000, '\x01');
        entry["rule"] = 1;
        alert["process_info"].append(entry);
    }
    return alert;
}

// Every part: a complete alert with its own id, the original's other members, a share of the entries.
void ExpectParts(const std::vector<Json::Value>& parts, const Json::Value& original) {
    std::set<int> pids;
    std::set<std::string> ids;
    for (const Json::Value& part : parts) {
        for (const std::string& key : original.getMemberNames()) {
            if (key != "event_id" && key != "process_info") {
                EXPECT_EQ(part[key], original[key]) << key;
            }
        }
        EXPECT_EQ(part.size(), original.size());
        ids.insert(part["event_id"].asString());
        for (const Json::Value& entry : part["process_info"]) {
            EXPECT_EQ(entry, original["process_info"][static_cast<Json::ArrayIndex>(pids.size())]);
            pids.insert(entry["process_pid"].asInt());
        }
    }
    EXPECT_GT(parts.size(), 1u);
    EXPECT_EQ(ids.size(), parts.size());
    EXPECT_EQ(ids.count(original["event_id"].asString()), 0u);
    EXPECT_EQ(pids.size(), original["process_info"].size());
}

}  // namespace

// On a stop, every queued report reaches the alert file as one JSON line; one longer than the
// spool takes arrives as complete alerts. Outages and stops of a running agent are met end to end.
TEST(DataReportTask, UnInitWritesEveryQueuedReportAsLinesAndAnAlertTooLongAsCompleteAlerts) {
    TestSupport::TempDir dir;
    TestSupport::LogCapture log("agent");
    Agent::ReportSettings settings;
    settings.filePath = dir.path() + "/alerts.json";
    settings.spoolDir = dir.path() + "/spool";
    auto* task = new Agent::DataReportTask(settings);
    task->Init();
    auto enqueue = [task](const std::string& body) {
        std::shared_ptr<Framework::Message> message = std::make_shared<Framework::DataMessage>("2", body);
        return task->EnqueueMsg(message);
    };
    const int count = 5000;
    for (int index = 0; index < count; ++index) {
        ASSERT_TRUE(enqueue("{\"seq\":" + std::to_string(index) + "}"));
    }
    const Json::Value alert = DecoyAlert();
    const std::string decoys = SDK::JsonUtils::JsonToString(alert);
    ASSERT_GT(decoys.size(), Agent::DataReportTask::kMaxAlertBytes);
    for (const std::string& body : {std::string("{\n  \"event\": \"multi\",\n  \"n\": [1, 2]\n}\n"),
                                    std::string("{\"event\": "), decoys}) {
        ASSERT_TRUE(enqueue(body));
    }
    std::shared_ptr<Framework::Message> other = std::make_shared<Framework::Message>("not_a_report");
    task->EnqueueMsg(other);
    task->UnInit();

    const std::vector<std::string> lines = TestSupport::ReadLines(settings.filePath);
    ASSERT_GT(lines.size(), static_cast<size_t>(count + 1));
    for (int index = 0; index < count; ++index) {
        ASSERT_EQ(lines[static_cast<size_t>(index)], "{\"seq\":" + std::to_string(index) + "}");
    }
    EXPECT_EQ(lines[count], "{\"event\":\"multi\",\"n\":[1,2]}");
    std::vector<Json::Value> parts;
    for (size_t index = count + 1; index < lines.size(); ++index) {
        EXPECT_LE(lines[index].size(), Agent::DataReportTask::kMaxAlertBytes);
        parts.emplace_back();
        ASSERT_TRUE(Json::Reader().parse(lines[index], parts.back())) << lines[index].substr(0, 80);
    }
    ExpectParts(parts, alert);
    EXPECT_EQ(task->GetRefusedCount(), 1u);
    EXPECT_EQ(log.Count("is not one JSON document"), 1u);
    task->release();
}

TEST(AlertSize, ASyslogSocketGetsAnAlertTooLongForItInEnvelopedPartsCountedOnlyOnceSent) {
    TestSupport::TempDir dir;
    const std::string path = dir.path() + "/log.sock";
    const int collector = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(::bind(collector, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const int bigBuffer = 8 << 20;
    ::setsockopt(collector, SOL_SOCKET, SO_RCVBUF, &bigBuffer, sizeof(bigBuffer));

    // As spooled: the first part of the decoy alert, about 1 MiB, more than one datagram takes.
    std::vector<std::string> spooled;
    std::string error;
    ASSERT_TRUE(Agent::AlertLine::FromBody(SDK::JsonUtils::JsonToString(DecoyAlert()),
                                           Agent::DataReportTask::kMaxAlertBytes, spooled, error))
        << error;
    Agent::AlertSpool spool(dir.path() + "/spool", 64 << 20);
    ASSERT_EQ(spool.Open(error), Agent::AlertSpool::OpenResult::kOpen) << error;
    Agent::SinkSettings settings;
    settings.type = "syslog";
    settings.socket = path;
    settings.maxMessageBytes = 1 << 20;  // more than the socket takes
    auto envelope = std::make_shared<Agent::SiemEnvelope>("web-1", "id", "0.1.0");
    Agent::AlertSinkPump pump("local", std::make_unique<Agent::SyslogSink>(settings, "web-1"), envelope,
                              spool, {});
    pump.Start();
    ASSERT_TRUE(spool.Append({spooled[0]}));

    std::vector<Json::Value> parts;
    // Received and counted agree once the pump is done: nothing counted that the socket refused.
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        std::string datagram(1 << 20, '\0');
        for (ssize_t got; (got = ::recv(collector, datagram.data(), datagram.size(), MSG_DONTWAIT)) > 0;) {
            Json::Value wrapped;
            EXPECT_TRUE(Json::Reader().parse(
                datagram.substr(0, static_cast<size_t>(got)).substr(datagram.find(" {") + 1), wrapped));
            EXPECT_EQ(wrapped["corvane_split"]["of"], "358a172f-858e-48b0-a6f7-382bca007edd");
            EXPECT_EQ(wrapped["corvane_split"]["processes"], 61);
            parts.push_back(wrapped["corvane"]);
        }
        return !parts.empty() && parts.size() == pump.GetDeliveredCount();
    })) << parts.size()
        << " received, " << pump.GetDeliveredCount() << " counted";
    pump.Stop(std::chrono::milliseconds(0));
    ::close(collector);
    // The first spooled part holds the first entries: compare with those.
    std::string line = spooled[0];
    Agent::AlertSplitter::Tie tie;
    ASSERT_TRUE(Agent::AlertSplitter::TakeTie(line, tie));
    Json::Value first;
    ASSERT_TRUE(Json::Reader().parse(line, first));
    ExpectParts(parts, first);
}
