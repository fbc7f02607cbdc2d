#include "WebhookSink.h"

#include <algorithm>
#include <cctype>

#include "SinkResources.h"
#include "sdk/CurlLibrary.h"

namespace Agent {

namespace {

// libcurl is allowed these alone (CURLOPT_PROTOCOLS_STR below).
const char* const kSchemes = "http,https";

size_t Discard(char* /*data*/, size_t size, size_t count, void* /*user*/) {
    return size * count;
}

}  // namespace

WebhookSink::WebhookSink(const SinkSettings& settings) : settings_(settings) {}

std::vector<SinkProblem> WebhookSink::Check(const SinkSettings& settings) {
    std::vector<SinkProblem> problems;
    const size_t colon = settings.url.find("://");
    std::string scheme = settings.url.substr(0, colon);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (colon == std::string::npos) {
        problems.push_back(
            {"url", "\"" + settings.url + "\" names no scheme; write http:// or https://", true});
    } else if (scheme != "http" && scheme != "https") {
        problems.push_back(
            {"url", "scheme \"" + scheme + "\" is not one the webhook sink sends to (http or https)", true});
    }
    std::string text;
    std::string error;
    if (!settings.tokenFile.empty()) {
        if (!SinkResources::ReadSecret(settings.tokenFile, text, error)) {
            problems.push_back({"token_file", error});
        } else if (text.find_first_not_of(" \r\n\t") == std::string::npos) {
            problems.push_back({"token_file", settings.tokenFile + ": empty"});
        }
    }
    if (!settings.headerFile.empty() && !SinkResources::ReadSecret(settings.headerFile, text, error)) {
        problems.push_back({"header_file", error});
    }
    if (settings.verify && !settings.caFile.empty() &&
        !SinkResources::CheckCaBundle(settings.caFile, error)) {
        problems.push_back({"ca_file", error});
    }
    return problems;
}

size_t WebhookSink::MaxLineBytes() const {
    // Ingest APIs commonly refuse events over about a megabyte.
    return settings_.maxMessageBytes > 0 ? static_cast<size_t>(settings_.maxMessageBytes) : 1u << 20;
}

WebhookSink::~WebhookSink() {
    if (handle_ != nullptr) {
        curl_->easy_cleanup(handle_);
    }
}

bool WebhookSink::Headers(std::vector<std::string>& headers, std::string& error) const {
    headers.push_back(settings_.format == "array" ? "Content-Type: application/json"
                                                  : "Content-Type: application/x-ndjson");
    std::string text;
    if (!settings_.tokenFile.empty()) {
        if (!SinkResources::ReadSecret(settings_.tokenFile, text, error)) {
            return false;
        }
        text.erase(text.find_last_not_of(" \r\n\t") + 1);
        headers.push_back("Authorization: Bearer " + text);
    }
    if (!settings_.headerFile.empty()) {
        if (!SinkResources::ReadSecret(settings_.headerFile, text, error)) {
            return false;
        }
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            end = end == std::string::npos ? text.size() : end;
            std::string line = text.substr(start, end - start);
            line.erase(line.find_last_not_of(" \r\t") + 1);
            if (line.find(':') != std::string::npos) {
                headers.push_back(line);
            }
            start = end + 1;
        }
    }
    return true;
}

size_t WebhookSink::Deliver(const std::vector<std::string>& lines, std::string& error) {
    if (curl_ == nullptr && (curl_ = SDK::CurlLibrary::Get(error)) == nullptr) {
        return 0;
    }
    if (handle_ == nullptr && (handle_ = curl_->easy_init()) == nullptr) {
        error = "cannot create a libcurl handle";
        return 0;
    }
    std::vector<std::string> headers;
    if (!Headers(headers, error)) {
        return 0;
    }
    std::string body;
    if (settings_.format == "array") {
        body = "[";
        for (const std::string& line : lines) {
            body.append(line, 0, line.size() - 1).push_back(',');
        }
        body.back() = ']';
    } else {
        for (const std::string& line : lines) {
            body += line;
        }
    }
    curl_slist* list = nullptr;
    for (const std::string& header : headers) {
        list = curl_->slist_append(list, header.c_str());
    }
    CURL* h = handle_;
    curl_->easy_setopt(h, CURLOPT_URL, settings_.url.c_str());
    curl_->easy_setopt(h, CURLOPT_PROTOCOLS_STR, kSchemes);
    curl_->easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_->easy_setopt(h, CURLOPT_POST, 1L);
    curl_->easy_setopt(h, CURLOPT_POSTFIELDS, body.data());
    curl_->easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_->easy_setopt(h, CURLOPT_HTTPHEADER, list);
    curl_->easy_setopt(h, CURLOPT_TIMEOUT, static_cast<long>(settings_.timeoutSeconds));
    curl_->easy_setopt(h, CURLOPT_CONNECTTIMEOUT, static_cast<long>(settings_.timeoutSeconds));
    curl_->easy_setopt(h, CURLOPT_SSL_VERIFYPEER, settings_.verify ? 1L : 0L);
    curl_->easy_setopt(h, CURLOPT_SSL_VERIFYHOST, settings_.verify ? 2L : 0L);
    if (!settings_.caFile.empty()) {
        curl_->easy_setopt(h, CURLOPT_CAINFO, settings_.caFile.c_str());
    }
    // Read the CA file again for each new connection (libcurl keeps it a day by default).
    curl_->easy_setopt(h, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    curl_->easy_setopt(h, CURLOPT_WRITEFUNCTION, &Discard);
    const CURLcode result = curl_->easy_perform(h);
    curl_->easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
    curl_->slist_free_all(list);
    if (result != CURLE_OK) {
        error = curl_->easy_strerror(result);
        return 0;
    }
    long status = 0;
    curl_->easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300) {
        return lines.size();
    }
    error = "HTTP " + std::to_string(status);
    if (status == 400 || status == 413 || status == 415 || status == 422) {
        // The server judged the alerts themselves: the same batch will not pass later.
        MarkRefusedForGood();
    } else if (status >= 400 && status < 500 && status != 408 && status != 429) {
        error += " (a configuration error: check the URL, the token and the headers)";
    }
    return 0;
}

}  // namespace Agent
