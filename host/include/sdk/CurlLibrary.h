#pragma once

#include <curl/curl.h>

#include <string>

namespace SDK {

// libcurl, loaded on the first download instead of at start-up: an agent that
// never downloads does not carry libcurl and its two dozen TLS, Kerberos and
// LDAP dependencies (about 4 MiB of resident memory).
struct CurlLibrary {
    CURLcode (*global_init)(long flags);
    CURL* (*easy_init)();
    CURLcode (*easy_setopt)(CURL* handle, CURLoption option, ...);
    CURLcode (*easy_perform)(CURL* handle);
    CURLcode (*easy_getinfo)(CURL* handle, CURLINFO info, ...);
    void (*easy_cleanup)(CURL* handle);
    const char* (*easy_strerror)(CURLcode code);
    curl_slist* (*slist_append)(curl_slist* list, const char* text);
    void (*slist_free_all)(curl_slist* list);

    // The loaded and initialised library, or null with the reason in `error`.
    // Loaded once per process and never unloaded.
    static const CurlLibrary* Get(std::string& error);
};

}  // namespace SDK
