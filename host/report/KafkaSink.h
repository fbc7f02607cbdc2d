#pragma once

#include <string>
#include <vector>

#include "AlertSink.h"
#include "KafkaLibrary.h"
#include "report/ReportSettings.h"

namespace Agent {

// Alerts to a Kafka topic through librdkafka: an idempotent producer with
// acks=all (no duplicates from its own retries, nothing confirmed before every
// in-sync replica has it), keyed by host name unless told otherwise, every
// other librdkafka property (TLS, SASL...) passed through. A batch counts as
// delivered up to its first message without a successful delivery report.
class KafkaSink : public AlertSink {
public:
    KafkaSink(const SinkSettings& settings, const std::string& hostName);
    ~KafkaSink() override;

    KafkaSink(const KafkaSink&) = delete;
    KafkaSink& operator=(const KafkaSink&) = delete;

    // False with the reason when the producer cannot be made (a bad property).
    bool Create(std::string& error);

    // The properties librdkafka refuses, asked of librdkafka itself on a scratch
    // configuration (no producer is made, no broker contacted).
    static std::vector<SinkProblem> Check(const SinkSettings& settings);

    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override;
    std::string Describe() const override { return "kafka://" + settings_.brokers + "/" + settings_.topic; }
    size_t MaxBatch() const override { return 10000; }
    size_t MaxLineBytes() const override;

private:
    // The producer's configuration: ours, the entry's properties, then the two that make
    // delivery safe. Null when librdkafka refuses one; `member` names it (for messages).
    static rd_kafka_conf_t* MakeConf(const KafkaLibrary& kafka, const SinkSettings& settings,
                                     std::string& member, std::string& error);
    static void OnDelivery(rd_kafka_t* producer, const rd_kafka_message_t* message, void* opaque);
    static void OnError(rd_kafka_t* producer, int error, const char* reason, void* opaque);

    const SinkSettings settings_;
    const std::string key_;
    const KafkaLibrary* kafka_ = nullptr;  // loaded at the first delivery
    rd_kafka_t* producer_ = nullptr;
    std::vector<rd_kafka_resp_err_t> reports_;  // per message of the batch in flight
    size_t pending_ = 0;
    std::string lastError_;
};

}  // namespace Agent
