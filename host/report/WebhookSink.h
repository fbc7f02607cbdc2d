#pragma once

#include <curl/curl.h>

#include <string>

#include "AlertSink.h"
#include "report/ReportSettings.h"

namespace SDK {
struct CurlLibrary;
}

namespace Agent {

// POSTs batches of alerts to an HTTP(S) endpoint (a SIEM's collector), as JSON
// lines or as one JSON array. The bearer token and extra headers come from
// files (agent.json may be readable by all), re-read for every batch so a
// rotated token takes effect without a restart. Certificates are verified
// unless told otherwise. A batch is delivered when the server answers 2xx;
// a 4xx other than 408 and 429 will not pass by retrying and is reported as a
// configuration error. libcurl is loaded on first use, like the downloads do.
class WebhookSink : public AlertSink {
public:
    explicit WebhookSink(const SinkSettings& settings);
    ~WebhookSink() override;

    WebhookSink(const WebhookSink&) = delete;
    WebhookSink& operator=(const WebhookSink&) = delete;

    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override;
    std::string Describe() const override { return settings_.url; }
    size_t MaxBatch() const override { return settings_.batch; }
    size_t MaxLineBytes() const override;

private:
    bool Headers(std::vector<std::string>& headers, std::string& error) const;

    const SinkSettings settings_;
    const SDK::CurlLibrary* curl_ = nullptr;
    CURL* handle_ = nullptr;  // kept between batches: one connection, kept alive
};

}  // namespace Agent
