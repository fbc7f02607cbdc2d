// The real agent delivering the test module's alerts through the spool to
// real sinks: nothing accepted is lost across SIGKILL or a full disk; the spool
// is the agent's alone; one alert a collector refuses holds up nothing.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/AgentRunner.h"
#include "support/ChildProcess.h"
#include "support/FileText.h"
#include "support/HttpTestServer.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using TestSupport::AgentRunner;
using TestSupport::ReadText;
using TestSupport::WaitFor;

const std::string kGood = std::string(CORVANE_BUILD_DIR) + "/tests/modules/libagent_test_module.so";
const long kDeadlineMs = 60000;

std::string Policy(const std::string& value, int burst, const std::string& sentLog = "") {
    return R"({"enabled": true, "value": ")" + value + R"(", "burst": )" + std::to_string(burst) +
           (sentLog.empty() ? "" : R"(, "sent_log": ")" + sentLog + "\"") + "}";
}

// conf/agent.json with the given "alerts.sinks" list, a quick retry and `more` settings.
void WriteConfig(AgentRunner& agent, const std::string& sinks, const std::string& more = "") {
    agent.WriteConfig("{" + more + R"("alerts": {"retry_seconds": 1, "retry_max_seconds": 2, "sinks": )" +
                      sinks + "}}");
}

std::string SyslogSink(const std::string& name, unsigned short port, const std::string& more = "") {
    return R"({"type": "syslog", "name": ")" + name + R"(", "host": "127.0.0.1", "port": )" +
           std::to_string(port) + more + "}";
}

// The alerts of JSON lines or JSON arrays in `text`, taken out of an envelope.
std::vector<Json::Value> Alerts(const std::string& text) {
    std::vector<Json::Value> alerts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value list;
        if (!Json::Reader().parse(line.rfind('[', 0) == 0 ? line : "[" + line + "]", list)) {
            continue;  // a cut record is no alert
        }
        for (const Json::Value& alert : list) {
            if (alert.isObject()) {
                alerts.push_back(alert.isMember("corvane") ? alert["corvane"] : alert);
            }
        }
    }
    return alerts;
}

// The "seq" of every alert in `text` with the given test value.
std::set<long> Seqs(const std::string& text, const std::string& value) {
    std::set<long> seqs;
    for (const Json::Value& alert : Alerts(text)) {
        if (alert["test_value"].asString() == value) {
            seqs.insert(alert["seq"].asInt64());
        }
    }
    return seqs;
}

std::set<long> Pids(const std::string& text) {
    std::set<long> pids;
    for (const Json::Value& alert : Alerts(text)) {
        for (const Json::Value& entry : alert["process_info"]) {
            pids.insert(entry["process_pid"].asInt64());
        }
    }
    return pids;
}

std::set<long> PostedSeqs(const TestSupport::HttpTestServer& server, const std::string& path) {
    std::string text;
    for (const std::string& body : server.Posted(path)) {
        text += body + "\n";
    }
    return Seqs(text, "hook");
}

// The segments of the spool in `dir`.
std::string SegmentsText(const std::string& dir) {
    std::string text;
    std::error_code none;  // no spool yet: no text
    for (const auto& entry : std::filesystem::directory_iterator(dir, none)) {
        text += entry.path().extension() == ".seg" ? ReadText(entry.path()) : "";
    }
    return text;
}

std::string SpoolText(const std::string& prefix) {
    return SegmentsText(prefix + "/var/spool");
}

std::filesystem::perms Mode(const std::string& path) {
    return std::filesystem::status(path).permissions();
}

bool Includes(const std::set<long>& all, const std::set<long>& part) {
    return std::includes(all.begin(), all.end(), part.begin(), part.end());
}

// A test CA (ca.pem) and a certificate for 127.0.0.1 that it signed (server.pem, server.key) in `dir`.
bool MakeCertificates(const std::string& dir) {
    const std::string make =
        "mkdir -p " + dir + " && cd " + dir +
        " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
        "-keyout ca.key -out ca.pem -days 1 -subj /CN=corvane-test-ca 2>/dev/null && "
        "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout server.key "
        "-out server.csr -subj /CN=127.0.0.1 2>/dev/null && printf 'subjectAltName=IP:127.0.0.1' > san && "
        "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 1 "
        "-extfile san 2>/dev/null";
    return std::system(make.c_str()) == 0;
}

// A real rsyslogd in `dir` (with its test certificates), its defaults (8 KiB messages) and `inputs`,
// writing "<input> <app> <msgid> <msg>" lines to out.log.
class Rsyslog {
public:
    Rsyslog(const std::string& dir, const std::string& inputs) : dir_(dir) {
        certified = MakeCertificates(dir);
        std::ofstream(dir + "/rsyslog.conf")
            << "global(workDirectory=\"" << dir << "\" DefaultNetstreamDriverCAFile=\"" << dir
            << "/ca.pem\" DefaultNetstreamDriverCertFile=\"" << dir
            << "/server.pem\" DefaultNetstreamDriverKeyFile=\"" << dir
            << "/server.key\")\nmain_queue(queue.timeoutshutdown=\"10000\")\n"
            << "module(load=\"imuxsock\" "
               "SysSock.Use=\"off\")\nmodule(load=\"imtcp\")\nmodule(load=\"imrelp\")\n"
            << inputs
            << "template(name=\"raw\" type=\"string\" string=\"%inputname% %app-name% %msgid% %msg%\\n\")\n"
            << "*.* action(type=\"omfile\" file=\"" << dir << "/out.log\" template=\"raw\")\n";
        Start();
    }
    void Start() {
        daemon_ = std::make_unique<TestSupport::ChildProcess>(std::vector<std::string>{
            "/usr/sbin/rsyslogd", "-n", "-i", dir_ + "/rsyslogd.pid", "-f", dir_ + "/rsyslog.conf"});
    }
    void Stop() {
        ::kill(daemon_->pid(), SIGTERM);
        daemon_->Wait();
    }
    // The messages received on `input`, one per line (a record that is no alert stays whole).
    std::string Received(const std::string& input) const {
        std::string text;
        std::istringstream lines(ReadText(dir_ + "/out.log"));
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, input.size() + 1, input + " ") == 0) {
                text += line.substr(line.find(" {") + 1) + "\n";
            }
        }
        return text;
    }
    static std::string Tcp(unsigned short port, const char* type = "imtcp", const std::string& more = "") {
        return "input(type=\"" + std::string(type) + "\" address=\"127.0.0.1\" port=\"" +
               std::to_string(port) + "\"" + more + ")\n";
    }
    static std::string Tls(unsigned short port) {
        return Tcp(port, "imtcp",
                   " name=\"tls\" streamDriver.name=\"ossl\" streamDriver.mode=\"1\" "
                   "streamDriver.authMode=\"anon\"");
    }
    bool certified = false;

private:
    std::string dir_;
    std::unique_ptr<TestSupport::ChildProcess> daemon_;
};

// Every line of `path` is strict UTF-8 JSON: decoded strictly, parsed, and its strings
// encodable again (no lone surrogates).
bool StrictJsonLines(const std::string& path) {
    const std::string check =
        "python3 -c 'import json,sys\n"
        "for line in open(sys.argv[1], \"rb\"):\n"
        "    json.dumps(json.loads(line.decode(\"utf-8\")), ensure_ascii=False).encode(\"utf-8\")' " +
        path;
    return std::system(check.c_str()) == 0;
}

}  // namespace

TEST(AlertSinksEndToEnd, EveryAlertSpooledBeforeSigkillReachesEverySinkAfterRestart) {
    AgentRunner agent("sigkill");
    // The copy's directory does not exist yet: the sink makes it.
    const std::string second = agent.prefix() + "/log/copies/second.json";
    WriteConfig(agent, R"([{"type": "file", "name": "copy", "path": "log/copies/second.json"}])");
    agent.WritePolicy("90001", "agent_test_feature", Policy("burst", 3000));
    // Files left readable by an older version become private.
    for (const std::string& path : {agent.AlertsPath(), agent.prefix() + "/log/agent.log"}) {
        std::ofstream{path};
        ::chmod(path.c_str(), 0644);
    }
    ASSERT_TRUE(agent.Start({}, {kGood}));
    ASSERT_TRUE(WaitFor([&] { return Seqs(SpoolText(agent.prefix()), "burst").size() >= 6000; }, kDeadlineMs))
        << agent.ReadLog();
    ::kill(agent.pid(), SIGKILL);
    agent.Stop();
    for (const std::string& path : {agent.AlertsPath(), second, agent.prefix() + "/log/agent.log"}) {
        EXPECT_EQ(Mode(path), std::filesystem::perms(0600)) << path;
    }
    EXPECT_EQ(Mode(agent.prefix() + "/log/copies"), std::filesystem::perms(0700));
    // Accepted means spooled: that is what must come out, whatever the sinks had taken.
    const std::set<long> accepted = Seqs(SpoolText(agent.prefix()), "burst");
    ASSERT_GE(accepted.size(), 6000u);
    EXPECT_EQ(*accepted.rbegin(), static_cast<long>(accepted.size())) << "a gap in the spool";

    agent.RemovePolicy("90001", "agent_test_feature");
    const size_t runs = agent.CountInLog("running with");
    ASSERT_TRUE(agent.Start({}, {kGood}));
    // The sinks may have taken everything before the kill: wait for the agent to be up,
    // or the stop below could reach it before it handles signals.
    ASSERT_TRUE(WaitFor([&] { return agent.CountInLog("running with") > runs; }, kDeadlineMs))
        << agent.ReadLog();
    for (const std::string& path : {agent.AlertsPath(), second}) {
        EXPECT_TRUE(WaitFor([&] { return Includes(Seqs(ReadText(path), "burst"), accepted); }, kDeadlineMs))
            << path;
    }
    EXPECT_EQ(agent.Stop(), 0);
}

TEST(AlertSinksEndToEnd, AFullSpoolDiskDropsCountedAlertsAndDeliveryResumesWhenSpaceReturns) {
    AgentRunner agent("fullspool");
    const std::string spool = agent.prefix() + "/var/spool";
    std::filesystem::create_directories(spool);
    if (::mount("tmpfs", spool.c_str(), "tmpfs", 0, "size=256k,mode=0700") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs (needs root): " << std::strerror(errno);
    }
    struct Unmount {
        std::string path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{spool};
    WriteConfig(agent, "[]");
    agent.WritePolicy("90001", "agent_test_feature", Policy("full", 200));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    ASSERT_TRUE(
        agent.WaitForAlert([](const Json::Value& alert) { return alert["seq"].asInt() > 0; }, kDeadlineMs));
    // Take every byte left, then give it back.
    const std::string filler = spool + "/filler";
    {
        std::ofstream out(filler, std::ios::binary);
        const std::string block(4096, 'x');
        while (out.write(block.data(), block.size())) {
        }
    }
    EXPECT_TRUE(agent.WaitForLog("cannot take alerts", kDeadlineMs)) << agent.ReadLog();
    ::unlink(filler.c_str());
    EXPECT_TRUE(agent.WaitForLog("alerts were dropped while it could not", kDeadlineMs)) << agent.ReadLog();
    const size_t before = Seqs(ReadText(agent.AlertsPath()), "full").size();
    EXPECT_TRUE(WaitFor([&] { return Seqs(ReadText(agent.AlertsPath()), "full").size() > before + 400; },
                        kDeadlineMs));
    EXPECT_EQ(agent.Stop(), 0);
}

// The plain collector is down while the first few hundred alerts are raised, then answers 500
// twice, and the Kafka broker goes down and comes back meanwhile; a TLS collector is trusted
// through the sink's CA file, and refused without it.
TEST(AlertSinksEndToEnd, WebhookAndKafkaGetEveryAlertThroughOutagesAndTlsCertificatesAreChecked) {
    char reason[512];
    rd_kafka_t* mock = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), reason, sizeof(reason));
    ASSERT_NE(mock, nullptr) << reason;
    rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(mock, 1);
    ASSERT_NE(cluster, nullptr);
    rd_kafka_mock_topic_create(cluster, "alerts", 1, 1);
    const std::string brokers = rd_kafka_mock_cluster_bootstraps(cluster);

    AgentRunner agent("outage");
    const std::string dir = agent.prefix() + "/conf/";
    ASSERT_TRUE(MakeCertificates(dir));
    TestSupport::HttpTestServer tls(0, dir + "server.pem", dir + "server.key");
    const unsigned short port = TestSupport::HttpTestServer::FreePort();
    std::ofstream(dir + "token") << "secret-token\n";
    WriteConfig(agent,
                R"([{"type": "webhook", "url": "http://127.0.0.1:)" + std::to_string(port) +
                    R"(/hook", "token_file": "conf/token", "format": "array", "batch": 50},
                           {"type": "webhook", "name": "good", "url": ")" +
                    tls.Url("/hook") +
                    R"(", "ca_file": "conf/ca.pem"}, {"type": "webhook", "name": "bad", "url": ")" +
                    tls.Url("/bad") + R"("}, {"type": "kafka", "brokers": ")" + brokers +
                    R"(", "topic": "alerts", "key": "host-1", "properties": {"message.timeout.ms": 3000}}])");
    agent.WritePolicy("90001", "agent_test_feature", Policy("hook", 100));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    auto raisedAtLeast = [&](size_t count) {
        return WaitFor([&] { return Seqs(ReadText(agent.AlertsPath()), "hook").size() >= count; },
                       kDeadlineMs);
    };
    ASSERT_TRUE(raisedAtLeast(200));
    rd_kafka_mock_broker_set_down(cluster, 1);
    ASSERT_TRUE(raisedAtLeast(700));
    for (const std::string sink : {"webhook", "bad", "kafka"}) {
        EXPECT_TRUE(agent.WaitForLog("cannot deliver alerts to " + sink, kDeadlineMs)) << sink;
    }
    TestSupport::HttpTestServer server(port);
    server.Fail("/hook", 500, 2);
    rd_kafka_mock_broker_set_up(cluster, 1);
    const std::set<long> raised = Seqs(ReadText(agent.AlertsPath()), "hook");
    EXPECT_TRUE(WaitFor([&] { return Includes(PostedSeqs(server, "/hook"), raised); }, kDeadlineMs));
    EXPECT_TRUE(WaitFor([&] { return Includes(PostedSeqs(tls, "/hook"), raised); }, kDeadlineMs));
    EXPECT_TRUE(agent.WaitForLog("alerts reach kafka", kDeadlineMs)) << agent.ReadLog();
    ASSERT_EQ(agent.Stop(), 0);
    const std::set<long> all = Seqs(ReadText(agent.AlertsPath()), "hook");
    EXPECT_TRUE(Includes(PostedSeqs(server, "/hook"), all));
    EXPECT_EQ(server.LastAuthorization("/hook"), "Bearer secret-token");
    EXPECT_TRUE(tls.Posted("/bad").empty());

    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "bootstrap.servers", brokers.c_str(), reason, sizeof(reason));
    rd_kafka_conf_set(conf, "group.id", "corvane-test", reason, sizeof(reason));
    rd_kafka_conf_set(conf, "auto.offset.reset", "earliest", reason, sizeof(reason));
    rd_kafka_t* consumer = rd_kafka_new(RD_KAFKA_CONSUMER, conf, reason, sizeof(reason));
    ASSERT_NE(consumer, nullptr) << reason;
    rd_kafka_poll_set_consumer(consumer);
    rd_kafka_topic_partition_list_t* topics = rd_kafka_topic_partition_list_new(1);
    rd_kafka_topic_partition_list_add(topics, "alerts", RD_KAFKA_PARTITION_UA);
    rd_kafka_subscribe(consumer, topics);
    rd_kafka_topic_partition_list_destroy(topics);
    std::string consumed;
    std::set<std::string> keys;
    EXPECT_TRUE(WaitFor(
        [&] {
            while (rd_kafka_message_t* message = rd_kafka_consumer_poll(consumer, 100)) {
                if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
                    consumed.append(static_cast<const char*>(message->payload), message->len).push_back('\n');
                    keys.insert(std::string(static_cast<const char*>(message->key), message->key_len));
                }
                rd_kafka_message_destroy(message);
            }
            return Includes(Seqs(consumed, "hook"), all);
        },
        kDeadlineMs))
        << Seqs(consumed, "hook").size() << " of " << all.size() << " consumed";
    EXPECT_EQ(keys, std::set<std::string>{"host-1"});
    rd_kafka_consumer_close(consumer);
    rd_kafka_destroy(consumer);
    rd_kafka_mock_cluster_destroy(cluster);
    rd_kafka_destroy(mock);
}

// A local user hides a process among 60 decoys whose 4,000-byte control-character arguments make
// the cycle's alert longer than the spool and rsyslog take, and names it with bytes that are not
// UTF-8: it is still delivered to every sink, every line is strict UTF-8 JSON, and rsyslog gets
// every alert of the test module once over its unix socket (in an envelope), TCP and TLS.
TEST(AlertSinksEndToEnd, RsyslogGetsEveryAlertOnceAndDecoysWithInvalidUtf8HideNoProcess) {
    TestSupport::TempDir programs("decoys");
    ::chmod(programs.path().c_str(), 0755);
    const std::string decoy = programs.path() + "/decoy";
    const std::string miner = programs.path() + "/miner\xff\xfe";
    std::filesystem::copy_file("/bin/dash", decoy);
    std::filesystem::copy_file("/bin/sleep", miner);
    const std::string noise(4000, '\x07');  // six bytes each in JSON: \u0007
    std::vector<std::unique_ptr<TestSupport::ChildProcess>> decoys;
    for (int index = 0; index < 60; ++index) {
        decoys.push_back(std::make_unique<TestSupport::ChildProcess>([&](const std::function<void()>&) {
            // Their sleeps outlive them: not on the test's output, which the test runner waits for.
            const int null = ::open("/dev/null", O_RDWR);
            if (::dup2(null, 1) == 1 && ::dup2(null, 2) == 2 && ::setgroups(0, nullptr) == 0 &&
                ::setgid(65534) == 0 && ::setuid(65534) == 0) {
                ::execl(decoy.c_str(), decoy.c_str(), "-c", "sleep 300; :", noise.c_str(), nullptr);
            }
        }));
        ASSERT_GT(decoys.back()->pid(), 0);
    }
    TestSupport::ChildProcess hidden({miner, "300"});

    AgentRunner agent("syslog");
    const std::string dir = agent.prefix() + "/rsyslog";
    const unsigned short tcp = TestSupport::HttpTestServer::FreePort();
    const unsigned short tls = TestSupport::HttpTestServer::FreePort();
    Rsyslog rsyslog(dir, "input(type=\"imuxsock\" Socket=\"" + dir +
                             "/log.sock\" UseSpecialParser=\"off\" ParseHostname=\"on\")\n" +
                             Rsyslog::Tcp(tcp) + Rsyslog::Tls(tls));
    ASSERT_TRUE(rsyslog.certified);
    ASSERT_TRUE(WaitFor([&] { return ::access((dir + "/log.sock").c_str(), F_OK) == 0; }, kDeadlineMs));
    WriteConfig(agent,
                R"([{"type": "syslog", "name": "local", "socket": "rsyslog/log.sock", "envelope": true}, )" +
                    SyslogSink("relay", tcp) + ", " +
                    SyslogSink("secure", tls, R"(, "tls": true, "ca_file": "rsyslog/ca.pem")") + "]");
    agent.WritePolicy("90001", "agent_test_feature", Policy("syslog", 100));
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 2}, "report_score": 3, "score": {"tmp": 3}}}})");
    ASSERT_TRUE(agent.Start({}, {AgentRunner::ModulePath("libprocess_collect_module.so"),
                                 AgentRunner::ModulePath("libnet_collect_module.so"),
                                 AgentRunner::ModulePath("libproc_det_module.so"), kGood}));
    EXPECT_FALSE(agent.WaitForFinding("procdet_0001", hidden.pid(), 0, kDeadlineMs).entry.isNull())
        << agent.ReadLog();
    for (const std::string input : {"imuxsock", "imtcp", "tls"}) {
        EXPECT_TRUE(WaitFor(
            [&] {
                const std::set<long> pids = Pids(rsyslog.Received(input));
                return pids.count(hidden.pid()) == 1 && pids.count(decoys.back()->pid()) == 1;
            },
            kDeadlineMs))
            << input;
    }
    ASSERT_TRUE(
        WaitFor([&] { return Seqs(ReadText(agent.AlertsPath()), "syslog").size() >= 500; }, kDeadlineMs));
    ASSERT_EQ(agent.Stop(), 0);
    const std::set<long> raised = Seqs(ReadText(agent.AlertsPath()), "syslog");
    for (const std::string input : {"imuxsock", "imtcp", "tls"}) {
        EXPECT_TRUE(WaitFor([&] { return Seqs(rsyslog.Received(input), "syslog") == raised; }, kDeadlineMs))
            << input << ": " << Seqs(rsyslog.Received(input), "syslog").size() << " of " << raised.size();
        const std::vector<Json::Value> alerts = Alerts(rsyslog.Received(input));
        EXPECT_EQ(std::count_if(alerts.begin(), alerts.end(),
                                [](auto& alert) { return alert["test_value"] == "syslog"; }),
                  static_cast<long>(raised.size()))
            << input << ": duplicates";
    }
    EXPECT_NE(ReadText(dir + "/out.log").find("\nimtcp corvane-agent - {"), std::string::npos)
        << "the header";
    // The name's bytes come back from the line's text: each \u00XX escape is one byte.
    EXPECT_NE(ReadText(agent.AlertsPath()).find("/miner\\u00ff\\u00fe\""), std::string::npos);
    EXPECT_TRUE(StrictJsonLines(agent.AlertsPath()));
    // rsyslog cut nothing: every record it received is a whole alert.
    std::ofstream(dir + "/records.json") << rsyslog.Received("imuxsock") << rsyslog.Received("imtcp");
    EXPECT_TRUE(StrictJsonLines(dir + "/records.json"));
}

// The collector stops mid-stream and comes back: RELP loses nothing; TCP loses nothing raised after
// it was gone (what its kernel took but it never read as it stopped is the documented window); a TLS
// relay whose CA file was wrong gets everything once the file is corrected, without a restart.
TEST(AlertSinksEndToEnd, RelpTcpAndTlsDeliverAcrossACollectorRestart) {
    AgentRunner agent("collector");
    const std::string dir = agent.prefix() + "/rsyslog";
    ASSERT_TRUE(MakeCertificates(dir + "/other"));
    const unsigned short relp = TestSupport::HttpTestServer::FreePort();
    const unsigned short tcp = TestSupport::HttpTestServer::FreePort();
    const unsigned short tls = TestSupport::HttpTestServer::FreePort();
    Rsyslog rsyslog(dir, Rsyslog::Tcp(relp, "imrelp") + Rsyslog::Tcp(tcp) + Rsyslog::Tls(tls));
    ASSERT_TRUE(rsyslog.certified);
    std::filesystem::copy_file(dir + "/other/ca.pem", dir + "/agent-ca.pem");
    WriteConfig(agent, R"([{"type": "relp", "name": "reliable", "host": "127.0.0.1", "port": )" +
                           std::to_string(relp) + "}, " + SyslogSink("relay", tcp) + ", " +
                           SyslogSink("secure", tls, R"(, "tls": true, "ca_file": "rsyslog/agent-ca.pem")") +
                           "]");
    const std::string sentLog = agent.prefix() + "/log/sent";
    agent.WritePolicy("90001", "agent_test_feature", Policy("gone", 20, sentLog));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    auto raised = [&] { return Seqs(ReadText(agent.AlertsPath()), "gone"); };
    ASSERT_TRUE(WaitFor([&] { return Seqs(rsyslog.Received("imrelp"), "gone").size() >= 100; }, kDeadlineMs))
        << agent.ReadLog();
    EXPECT_TRUE(agent.WaitForLog("cannot deliver alerts to secure", kDeadlineMs));

    rsyslog.Stop();
    // Alerts raised from here on were written, if at all, to a relay that was gone.
    long sent = 0;
    long refused = 0;
    std::ifstream(sentLog) >> sent >> refused;
    const long stopped = sent + refused;
    ASSERT_TRUE(WaitFor([&] { return *raised().rbegin() > stopped + 100; }, kDeadlineMs));
    std::filesystem::copy_file(dir + "/ca.pem", dir + "/agent-ca.pem",
                               std::filesystem::copy_options::overwrite_existing);
    rsyslog.Start();
    ASSERT_TRUE(WaitFor([&] { return *raised().rbegin() > stopped + 300; }, kDeadlineMs));
    const std::set<long> all = raised();
    std::set<long> after;
    std::copy_if(all.begin(), all.end(), std::inserter(after, after.end()),
                 [&](long seq) { return seq > stopped; });
    for (const auto& [input, expected] :
         {std::pair<std::string, std::set<long>>{"imrelp", all}, {"imtcp", after}, {"tls", all}}) {
        EXPECT_TRUE(
            WaitFor([&] { return Includes(Seqs(rsyslog.Received(input), "gone"), expected); }, kDeadlineMs))
            << input << ": " << Seqs(rsyslog.Received(input), "gone").size() << " of " << expected.size();
    }
    EXPECT_EQ(agent.Stop(), 0);
}

TEST(AlertSinksEndToEnd, TheSpoolIsTheAgentsAloneAndAnAlertRefusedFor400HoldsUpNothing) {
    AgentRunner agent("spool");
    TestSupport::HttpTestServer server;
    server.Refuse("/hook", 400, "\"seq\":5,");
    WriteConfig(agent, R"([{"type": "webhook", "url": ")" + server.Url("/hook") + R"(", "batch": 50}])",
                R"("metrics": {"listen": "127.0.0.1:0"}, )");
    // Where the spool goes, a local user made a directory of their own.
    const std::string spool = agent.prefix() + "/var/spool";
    const std::string sent = agent.prefix() + "/log/sent";
    std::filesystem::create_directories(spool);
    ASSERT_EQ(::chown(spool.c_str(), 65534, 65534), 0);
    agent.WritePolicy("90001", "agent_test_feature", Policy("hook", 5, sent));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    EXPECT_TRUE(agent.WaitForLog("alert spool refused: " + spool + ": owned by uid 65534", kDeadlineMs));
    ASSERT_TRUE(WaitFor([&] { return std::atol(ReadText(sent).c_str()) >= 20; }, kDeadlineMs));
    EXPECT_TRUE(std::filesystem::is_empty(spool)) << "the user's directory was written";
    EXPECT_TRUE(server.Posted("/hook").empty());

    // Once it is root's, what waited in memory goes out, all but the alert the collector refuses for
    // good.
    ASSERT_EQ(::chown(spool.c_str(), 0, 0), 0);
    std::set<long> posted;
    EXPECT_TRUE(WaitFor([&] { return (posted = PostedSeqs(server, "/hook")).size() >= 40; }, kDeadlineMs))
        << agent.ReadLog();
    EXPECT_TRUE(!posted.empty() && posted.count(5) == 0 && *posted.begin() == 1 &&
                static_cast<long>(posted.size()) == *posted.rbegin() - 1)
        << "an alert other than 5 is missing";
    EXPECT_EQ(Seqs(ReadText(spool + "/webhook.dead"), "hook"), std::set<long>{5});
    EXPECT_EQ(Mode(spool), std::filesystem::perms(0700)) << "the spool directory was left open to all";
    EXPECT_EQ(agent.CountInLog("refused an alert 3 times for good (HTTP 400)"), 1u);

    // A second agent on this spool does not start; a one-shot run beside it keeps to its own alerts.
    const std::string common = "--prefix " + agent.prefix() + " --module " + kGood + " ";
    const auto second = AgentRunner::RunToEnd(common + "--policy-dir " + agent.PolicyDir());
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.out.find("is in use by another corvane-agent (pid " + std::to_string(agent.pid()) + ")"),
              std::string::npos)
        << second.out;
    const TestSupport::TempDir own("once");
    own.Write("policies/90001/agent_test_feature.json", Policy("once", 3));
    const auto once = AgentRunner::RunToEnd(common + "--once --policy-dir " + own.path() +
                                            "/policies --alerts " + own.path() + "/alerts.json");
    EXPECT_EQ(once.status, 0) << once.out;
    EXPECT_EQ(Seqs(ReadText(own.path() + "/alerts.json"), "once").size(), 3u);
    // One whose output refuses the alerts fails, and keeps them where it says.
    const auto full =
        AgentRunner::RunToEnd(common + "--once --policy-dir " + own.path() + "/policies --alerts /dev/full");
    EXPECT_EQ(full.status, 1) << full.out;
    const size_t named = full.out.find("are kept in /");
    ASSERT_NE(named, std::string::npos) << full.out;
    const std::string kept = full.out.substr(named + 12, full.out.find('\n', named) - named - 12);
    EXPECT_EQ(Seqs(SegmentsText(kept), "once").size(), 3u) << kept;
    std::filesystem::remove_all(kept);
    std::string service = SpoolText(agent.prefix()) + ReadText(agent.AlertsPath());
    for (const std::string& body : server.Posted("/hook")) {
        service += body;
    }
    EXPECT_TRUE(Seqs(service, "once").empty()) << "the one-shot run wrote to the service's spool or sinks";
    EXPECT_EQ(agent.CountInLog("metrics served on port"), 1u) << "the one-shot run bound a metrics port";
    EXPECT_EQ(agent.Stop(), 0);
}
