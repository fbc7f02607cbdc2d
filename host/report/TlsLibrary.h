#pragma once

#include <openssl/ssl.h>

#include <string>

#include "sdk/CryptoLibrary.h"

namespace Agent {

// libssl, loaded when a TLS syslog sink first connects instead of at start-up
// (with libcrypto, about 1.7 MiB of resident memory an agent without TLS
// sinks does not carry).
struct TlsLibrary {
    decltype(&TLS_client_method) client_method;
    decltype(&SSL_CTX_new) ctx_new;
    decltype(&SSL_CTX_free) ctx_free;
    decltype(&SSL_CTX_ctrl) ctx_ctrl;
    decltype(&SSL_CTX_set_verify) ctx_set_verify;
    decltype(&SSL_CTX_set_default_verify_paths) ctx_set_default_verify_paths;
    decltype(&SSL_CTX_load_verify_locations) ctx_load_verify_locations;
    decltype(&SSL_new) ssl_new;
    decltype(&SSL_free) ssl_free;
    decltype(&SSL_ctrl) ssl_ctrl;
    decltype(&SSL_set_fd) set_fd;
    decltype(&SSL_set1_host) set1_host;
    decltype(&SSL_connect) connect;
    decltype(&SSL_get_verify_result) get_verify_result;
    decltype(&SSL_write) write;
    decltype(&SSL_shutdown) shutdown;
    const SDK::CryptoLibrary* crypto;  // error texts

    // The loaded library, or null with the reason in `error`.
    static const TlsLibrary* Get(std::string& error);
};

}  // namespace Agent
