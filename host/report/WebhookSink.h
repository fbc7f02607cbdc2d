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
// unless told otherwise. A batch is delivered when the server answers 2xx.
// 400, 413, 415 and 422 refuse the alerts themselves (marked refused for
// good); another 4xx but 408 and 429 is reported as a configuration error and
// retried (the token or URL may be fixed). libcurl is loaded on first use.
class WebhookSink : public AlertSink {
public:
    explicit WebhookSink(const SinkSettings& settings);
    ~WebhookSink() override;

    WebhookSink(const WebhookSink&) = delete;
    WebhookSink& operator=(const WebhookSink&) = delete;

    // What keeps a sink of `settings` from delivering that can be seen without
    // connecting: the URL's scheme, the token, header and CA files.
    static std::vector<SinkProblem> Check(const SinkSettings& settings);

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
