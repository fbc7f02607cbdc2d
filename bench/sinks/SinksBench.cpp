// Alerts per second through the spool to each sink, beside a plain append of
// the same lines to a file in the same run, and the spool's CPU time at a
// steady 100 alerts/s. Usage: sinks_bench [alerts]
#include <fcntl.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AlertFileSink.h"
#include "AlertSinkFactory.h"
#include "AlertSinkPump.h"
#include "AlertSpool.h"
#include "support/ChildProcess.h"
#include "support/HttpTestServer.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using Clock = std::chrono::steady_clock;

// A behaviour-detection alert of typical size (about 600 bytes).
std::string Alert(int index) {
    char text[1024];
    std::snprintf(
        text, sizeof(text),
        "{\"event_id\":\"6f1c2a4e-0000-4000-8000-%012d\",\"event_classid\":\"procdet_0001\","
        "\"event_name\":\"detaction\",\"occur_time\":1763900000,\"event_category\":3000,"
        "\"event_type\":3007,\"severity\":2,\"event_count\":1,\"attack_phase\":6,\"attack_tag\":4,"
        "\"confidence\":70,\"detect_module\":\"proc_det_module\",\"process_info\":[{\"process_pid\":%d,"
        "\"process_path\":\"/tmp/.x/miner\",\"process_hash\":\"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b"
        "0b822cd15d6c15b0f00a08\",\"process_cmdline\":\"/tmp/.x/miner --url stratum+tcp://pool:3333 "
        "--threads 8\",\"parent_process_pid\":1,\"parent_process_path\":\"/usr/lib/systemd/systemd\","
        "\"rule\":33,\"mode\":493,\"score\":80,\"dt_cpu\":\"0.0.0.97\"}]}\n",
        index, 10000 + index % 50000);
    return text;
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Run {
    double seconds;
    double cpu;
};

// The same lines appended in batches of 1,024 with one write(2) each, flushed
// (fdatasync, the durability the file sink gives) or not.
Run PlainAppend(const std::string& path, const std::vector<std::string>& lines, bool sync) {
    const double cpu = CpuSeconds();
    const auto start = Clock::now();
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_TRUNC, 0600);
    std::string batch;
    for (size_t index = 0; index < lines.size(); ++index) {
        batch += lines[index];
        if (batch.size() >= 1024 * 600 || index + 1 == lines.size()) {
            if (::write(fd, batch.data(), batch.size()) != static_cast<ssize_t>(batch.size())) {
                std::perror("write");
            }
            if (sync) {
                ::fdatasync(fd);
            }
            batch.clear();
        }
    }
    ::close(fd);
    return {std::chrono::duration<double>(Clock::now() - start).count(), CpuSeconds() - cpu};
}

// Lines appended to a fresh spool in batches of 1,024 while one pump per sink
// delivers; timed until every sink confirmed every line.
Run ThroughSpool(const std::string& dir, const std::vector<std::string>& lines,
                 const std::vector<Agent::SinkSettings>& sinks) {
    Agent::AlertSpool spool(dir, 1ull << 32);
    std::string error;
    if (spool.Open(error) != Agent::AlertSpool::OpenResult::kOpen) {
        std::fprintf(stderr, "spool: %s\n", error.c_str());
        std::exit(1);
    }
    std::vector<std::unique_ptr<Agent::AlertSinkPump>> pumps;
    for (const Agent::SinkSettings& settings : sinks) {
        std::unique_ptr<Agent::AlertSink> sink = Agent::AlertSinkFactory::Make(settings, error);
        if (!sink) {
            std::fprintf(stderr, "%s: %s\n", settings.name.c_str(), error.c_str());
            std::exit(1);
        }
        pumps.push_back(std::make_unique<Agent::AlertSinkPump>(settings.name, std::move(sink), nullptr, spool,
                                                               Agent::AlertSinkPump::Timing{}));
    }
    const double cpu = CpuSeconds();
    const auto start = Clock::now();
    for (auto& pump : pumps) {
        pump->Start();
    }
    std::vector<std::string> batch;
    for (size_t index = 0; index < lines.size(); ++index) {
        batch.push_back(lines[index]);
        if (batch.size() == 1024 || index + 1 == lines.size()) {
            spool.Append(batch);
            batch.clear();
        }
    }
    for (auto& pump : pumps) {
        TestSupport::WaitFor([&] { return pump->GetDeliveredCount() >= lines.size(); }, 600000);
    }
    const Run run{std::chrono::duration<double>(Clock::now() - start).count(), CpuSeconds() - cpu};
    for (auto& pump : pumps) {
        pump->Stop(std::chrono::milliseconds(0));
    }
    return run;
}

void Report(const char* what, size_t count, const Run& run) {
    std::printf("%-44s %9.0f alerts/s  (%zu in %.2f s, CPU %.2f s)\n", what, count / run.seconds, count,
                run.seconds, run.cpu);
}

Agent::SinkSettings Sink(const std::string& type, const std::string& name) {
    Agent::SinkSettings sink;
    sink.type = type;
    sink.name = name;
    return sink;
}

}  // namespace

int main(int argc, char** argv) {
    const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
    TestSupport::TempDir dir("sinks_bench", "/var/tmp");  // a disk, not a tmpfs: fsync has its real cost
    std::vector<std::string> lines;
    for (size_t index = 0; index < count; ++index) {
        lines.push_back(Alert(static_cast<int>(index)));
    }

    // 1. The file: plain append (with and without a sync per batch) beside the spool and the file sink.
    Agent::SinkSettings file = Sink("file", "file");
    file.path = dir.path() + "/alerts.json";
    file.rotateBytes = 0;
    const Run plain = PlainAppend(dir.path() + "/plain.json", lines, false);
    const Run plainSync = PlainAppend(dir.path() + "/plain-sync.json", lines, true);
    const Run spooled = ThroughSpool(dir.path() + "/spool-file", lines, {file});
    Report("plain append, no sync", count, plain);
    Report("plain append, fdatasync per batch", count, plainSync);
    Report("spool -> file sink", count, spooled);
    std::printf("spool -> file vs plain append+sync: %.2fx the time, %.2fx the CPU\n",
                spooled.seconds / plainSync.seconds, spooled.cpu / plainSync.cpu);

    // 2. Kafka: librdkafka's mock cluster in this process.
    char reason[512];
    rd_kafka_t* mock = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), reason, sizeof(reason));
    rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(mock, 1);
    rd_kafka_mock_topic_create(cluster, "alerts", 1, 1);
    Agent::SinkSettings kafka = Sink("kafka", "kafka");
    kafka.brokers = rd_kafka_mock_cluster_bootstraps(cluster);
    kafka.topic = "alerts";
    Report("spool -> kafka (mock cluster)", count, ThroughSpool(dir.path() + "/spool-kafka", lines, {kafka}));
    rd_kafka_mock_cluster_destroy(cluster);
    rd_kafka_destroy(mock);

    // 3. Webhook: the test HTTP server (Poco) on 127.0.0.1, batches of 500 as JSON lines.
    {
        TestSupport::HttpTestServer server;
        Agent::SinkSettings webhook = Sink("webhook", "webhook");
        webhook.url = server.Url("/in");
        Report("spool -> webhook (local HTTP, 500/batch)", count / 4,
               ThroughSpool(dir.path() + "/spool-webhook",
                            std::vector<std::string>(lines.begin(), lines.begin() + count / 4), {webhook}));
    }

    // 4. Syslog: a real rsyslogd writing to a file, over its unix socket and over TCP.
    {
        const std::string conf = dir.path() + "/rsyslog.conf";
        const unsigned short port = TestSupport::HttpTestServer::FreePort();
        FILE* out = std::fopen(conf.c_str(), "w");
        std::fprintf(out,
                     "global(workDirectory=\"%s\" maxMessageSize=\"64k\")\n"
                     "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
                     "input(type=\"imuxsock\" Socket=\"%s/log.sock\" UseSpecialParser=\"off\" "
                     "RateLimit.Interval=\"0\")\n"
                     "module(load=\"imtcp\")\ninput(type=\"imtcp\" address=\"127.0.0.1\" port=\"%u\")\n"
                     "*.* action(type=\"omfile\" file=\"%s/syslog.out\")\n",
                     dir.path().c_str(), dir.path().c_str(), port, dir.path().c_str());
        std::fclose(out);
        TestSupport::ChildProcess rsyslogd(
            {"/usr/sbin/rsyslogd", "-n", "-i", dir.path() + "/rsyslogd.pid", "-f", conf});
        TestSupport::WaitFor([&] { return ::access((dir.path() + "/log.sock").c_str(), F_OK) == 0; }, 10000);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // imtcp listening
        Agent::SinkSettings local = Sink("syslog", "local");
        local.socket = dir.path() + "/log.sock";
        Agent::SinkSettings relay = Sink("syslog", "relay");
        relay.host = "127.0.0.1";
        relay.port = port;
        const std::vector<std::string> part(lines.begin(), lines.begin() + count / 4);
        Report("spool -> syslog unix socket (rsyslogd)", part.size(),
               ThroughSpool(dir.path() + "/spool-syslog-local", part, {local}));
        Report("spool -> syslog TCP, octet counting (rsyslogd)", part.size(),
               ThroughSpool(dir.path() + "/spool-syslog-tcp", part, {relay}));
    }

    // 5. CPU at a steady 100 alerts/s for 20 s: spool -> file sink vs write+fdatasync per alert.
    {
        const int seconds = 20;
        const double cpu0 = CpuSeconds();
        const int fd =
            ::open((dir.path() + "/steady-plain.json").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
        auto next = Clock::now();
        for (int index = 0; index < seconds * 100; ++index) {
            const std::string& line = lines[static_cast<size_t>(index) % lines.size()];
            if (::write(fd, line.data(), line.size()) < 0) {
                std::perror("write");
            }
            ::fdatasync(fd);
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
        }
        ::close(fd);
        const double plainCpu = CpuSeconds() - cpu0;

        Agent::AlertSpool spool(dir.path() + "/spool-steady", 1ull << 30);
        std::string error;
        spool.Open(error);
        Agent::SinkSettings steady = file;
        steady.name = "steady";
        steady.path = dir.path() + "/steady.json";
        Agent::AlertSinkPump pump("steady", Agent::AlertSinkFactory::Make(steady, error), nullptr, spool,
                                  Agent::AlertSinkPump::Timing{});
        pump.Start();
        const double cpu1 = CpuSeconds();
        next = Clock::now();
        for (int index = 0; index < seconds * 100; ++index) {
            spool.Append({lines[static_cast<size_t>(index) % lines.size()]});
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
        }
        TestSupport::WaitFor([&] { return pump.GetDeliveredCount() >= seconds * 100u; }, 60000);
        const double spoolCpu = CpuSeconds() - cpu1;
        pump.Stop(std::chrono::milliseconds(0));
        std::printf(
            "100 alerts/s for %d s: plain write+fdatasync per alert %.3f s CPU (%.2f %% of a core), "
            "spool -> file sink %.3f s CPU (%.2f %% of a core)\n",
            seconds, plainCpu, plainCpu * 100 / seconds, spoolCpu, spoolCpu * 100 / seconds);
    }
    return 0;
}
