#pragma once

#include <librdkafka/rdkafka.h>

#include <string>

namespace Agent {

// librdkafka, loaded when a Kafka sink first delivers instead of at start-up:
// it brings libssl, libcrypto, SASL and compression libraries (about 2 MiB of
// resident memory) that an agent without a Kafka sink does not need.
struct KafkaLibrary {
    decltype(&rd_kafka_conf_new) conf_new;
    decltype(&rd_kafka_conf_set) conf_set;
    decltype(&rd_kafka_conf_destroy) conf_destroy;
    decltype(&rd_kafka_conf_set_opaque) conf_set_opaque;
    decltype(&rd_kafka_conf_set_dr_msg_cb) conf_set_dr_msg_cb;
    decltype(&rd_kafka_conf_set_error_cb) conf_set_error_cb;
    decltype(&rd_kafka_conf_set_log_cb) conf_set_log_cb;
    decltype(&rd_kafka_new) create;
    decltype(&rd_kafka_destroy) destroy;
    decltype(&rd_kafka_flush) flush;
    decltype(&rd_kafka_poll) poll;
    decltype(&rd_kafka_producev) producev;
    decltype(&rd_kafka_err2str) err2str;
    decltype(&rd_kafka_err2name) err2name;

    // The loaded library, or null with the reason in `error`.
    static const KafkaLibrary* Get(std::string& error);
};

}  // namespace Agent
