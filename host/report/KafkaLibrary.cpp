#include "KafkaLibrary.h"

#include "sdk/LazyLibrary.h"

namespace Agent {

const KafkaLibrary* KafkaLibrary::Get(std::string& error) {
    static SDK::LoadedTable<KafkaLibrary> table;
    return table.Get(error, [](KafkaLibrary& kafka, std::string& loadError) {
        SDK::LazyLibrary lib("librdkafka.so.1");
        return lib.Open(loadError) && lib.Resolve("rd_kafka_conf_new", kafka.conf_new, loadError) &&
               lib.Resolve("rd_kafka_conf_set", kafka.conf_set, loadError) &&
               lib.Resolve("rd_kafka_conf_destroy", kafka.conf_destroy, loadError) &&
               lib.Resolve("rd_kafka_conf_set_opaque", kafka.conf_set_opaque, loadError) &&
               lib.Resolve("rd_kafka_conf_set_dr_msg_cb", kafka.conf_set_dr_msg_cb, loadError) &&
               lib.Resolve("rd_kafka_conf_set_error_cb", kafka.conf_set_error_cb, loadError) &&
               lib.Resolve("rd_kafka_conf_set_log_cb", kafka.conf_set_log_cb, loadError) &&
               lib.Resolve("rd_kafka_new", kafka.create, loadError) &&
               lib.Resolve("rd_kafka_destroy", kafka.destroy, loadError) &&
               lib.Resolve("rd_kafka_flush", kafka.flush, loadError) &&
               lib.Resolve("rd_kafka_poll", kafka.poll, loadError) &&
               lib.Resolve("rd_kafka_producev", kafka.producev, loadError) &&
               lib.Resolve("rd_kafka_err2str", kafka.err2str, loadError) &&
               lib.Resolve("rd_kafka_err2name", kafka.err2name, loadError);
    });
}

}  // namespace Agent
