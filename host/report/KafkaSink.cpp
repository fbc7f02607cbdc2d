#include "KafkaSink.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "sdk/HostLog.h"

namespace Agent {

namespace {

constexpr rd_kafka_resp_err_t kNoReport = static_cast<rd_kafka_resp_err_t>(-12345);

// Errors about the message itself: no broker will take it later either.
bool RefusesTheMessage(rd_kafka_resp_err_t error) {
    return error == RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE || error == RD_KAFKA_RESP_ERR_INVALID_MSG_SIZE ||
           error == RD_KAFKA_RESP_ERR_INVALID_MSG || error == RD_KAFKA_RESP_ERR_INVALID_RECORD;
}

// Settings ours by default; a property given in agent.json wins, except the
// two that make delivery safe.
const char* const kDefaults[][2] = {
    {"linger.ms", "5"},
    {"message.timeout.ms", "15000"},  // a batch is given up (and retried by us) after this
    {"socket.timeout.ms", "10000"},
    {"log.connection.close", "false"},
};

void LogFromLibrary(const rd_kafka_t* /*producer*/, int level, const char* facility, const char* text) {
    HOST_LOG_DEBUG("librdkafka " + std::to_string(level) + " " + facility + ": " + text);
}

}  // namespace

KafkaSink::KafkaSink(const SinkSettings& settings, const std::string& hostName)
    : settings_(settings), key_(settings.key.empty() ? hostName : settings.key) {}

size_t KafkaSink::MaxLineBytes() const {
    // librdkafka refuses a message over message.max.bytes with its key and record overhead.
    uint64_t limit = settings_.maxMessageBytes;
    const auto property = settings_.properties.find("message.max.bytes");
    if (limit == 0 && property != settings_.properties.end()) {
        limit = std::strtoull(property->second.c_str(), nullptr, 10);
    }
    limit = limit > 0 ? limit : 1000000;
    const size_t overhead = key_.size() + 512;
    return static_cast<size_t>(std::max<uint64_t>(limit, overhead + 4096) - overhead);
}

KafkaSink::~KafkaSink() {
    if (producer_ != nullptr) {
        kafka_->flush(producer_, 1000);
        kafka_->destroy(producer_);
    }
}

rd_kafka_conf_t* KafkaSink::MakeConf(const KafkaLibrary& kafka, const SinkSettings& settings,
                                     std::string& member, std::string& error) {
    rd_kafka_conf_t* conf = kafka.conf_new();
    char reason[512];
    auto set = [&](const std::string& key, const std::string& name, const std::string& value) {
        if (kafka.conf_set(conf, name.c_str(), value.c_str(), reason, sizeof(reason)) != RD_KAFKA_CONF_OK) {
            member = key;
            error = "property " + name + ": " + reason;
            return false;
        }
        return true;
    };
    bool good = set("brokers", "bootstrap.servers", settings.brokers);
    for (const auto& entry : kDefaults) {
        good = good && set("properties", entry[0], entry[1]);
    }
    for (const auto& property : settings.properties) {
        good = good && set("properties." + property.first, property.first, property.second);
    }
    good = good && set("properties", "enable.idempotence", "true") && set("properties", "acks", "all");
    if (!good) {
        kafka.conf_destroy(conf);
        return nullptr;
    }
    return conf;
}

std::vector<SinkProblem> KafkaSink::Check(const SinkSettings& settings) {
    std::string error;
    const KafkaLibrary* kafka = KafkaLibrary::Get(error);
    if (kafka == nullptr) {
        return {{"type", "librdkafka cannot be loaded: " + error, true}};
    }
    std::string member;
    rd_kafka_conf_t* conf = MakeConf(*kafka, settings, member, error);
    if (conf == nullptr) {
        return {{member, error, true}};
    }
    kafka->conf_destroy(conf);
    return {};
}

bool KafkaSink::Create(std::string& error) {
    if (kafka_ == nullptr && (kafka_ = KafkaLibrary::Get(error)) == nullptr) {
        return false;
    }
    std::string member;
    rd_kafka_conf_t* conf = MakeConf(*kafka_, settings_, member, error);
    if (conf == nullptr) {
        return false;
    }
    kafka_->conf_set_opaque(conf, this);
    kafka_->conf_set_dr_msg_cb(conf, &KafkaSink::OnDelivery);
    kafka_->conf_set_error_cb(conf, &KafkaSink::OnError);
    kafka_->conf_set_log_cb(conf, &LogFromLibrary);
    char reason[512];
    producer_ = kafka_->create(RD_KAFKA_PRODUCER, conf, reason, sizeof(reason));
    if (producer_ == nullptr) {
        kafka_->conf_destroy(conf);
        error = std::string("cannot create the producer: ") + reason;
        return false;
    }
    return true;
}

void KafkaSink::OnDelivery(rd_kafka_t* /*producer*/, const rd_kafka_message_t* message, void* opaque) {
    auto* sink = static_cast<KafkaSink*>(opaque);
    const auto index = reinterpret_cast<uintptr_t>(message->_private);
    if (index < sink->reports_.size() && sink->reports_[index] == kNoReport) {
        sink->reports_[index] = message->err;
        --sink->pending_;
    }
}

void KafkaSink::OnError(rd_kafka_t* /*producer*/, int error, const char* reason, void* opaque) {
    auto* sink = static_cast<KafkaSink*>(opaque);
    sink->lastError_ =
        std::string(sink->kafka_->err2name(static_cast<rd_kafka_resp_err_t>(error))) + ": " + reason;
}

size_t KafkaSink::Deliver(const std::vector<std::string>& lines, std::string& error) {
    if (producer_ == nullptr && !Create(error)) {
        return 0;
    }
    reports_.assign(lines.size(), kNoReport);
    pending_ = lines.size();
    size_t produced = 0;
    for (; produced < lines.size(); ++produced) {
        const std::string& line = lines[produced];
        rd_kafka_resp_err_t result = RD_KAFKA_RESP_ERR_NO_ERROR;
        for (;;) {
            result = kafka_->producev(
                producer_, RD_KAFKA_V_TOPIC(settings_.topic.c_str()),
                RD_KAFKA_V_KEY(const_cast<char*>(key_.data()), key_.size()),
                RD_KAFKA_V_VALUE(const_cast<char*>(line.data()), line.size() - 1),  // without the '\n'
                RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
                RD_KAFKA_V_OPAQUE(reinterpret_cast<void*>(static_cast<uintptr_t>(produced))), RD_KAFKA_V_END);
            if (result != RD_KAFKA_RESP_ERR__QUEUE_FULL) {
                break;
            }
            kafka_->poll(producer_, 100);  // the local queue drains as the brokers take messages
        }
        if (result != RD_KAFKA_RESP_ERR_NO_ERROR) {
            error = std::string("cannot produce: ") + kafka_->err2str(result);
            if (RefusesTheMessage(result)) {
                MarkRefusedForGood();
            }
            pending_ -= lines.size() - produced;
            break;
        }
    }
    // Every produced message gets a report within message.timeout.ms.
    while (pending_ > 0) {
        kafka_->poll(producer_, 100);
    }
    size_t confirmed = 0;
    while (confirmed < produced && reports_[confirmed] == RD_KAFKA_RESP_ERR_NO_ERROR) {
        ++confirmed;
    }
    if (confirmed < produced) {
        error = std::string(kafka_->err2str(reports_[confirmed])) +
                (lastError_.empty() ? std::string() : " (" + lastError_ + ")");
        if (RefusesTheMessage(reports_[confirmed])) {
            MarkRefusedForGood();
        }
    }
    return confirmed;
}

}  // namespace Agent
