#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

namespace SDK {

// libcrypto, loaded at the first file digest or TLS connection instead of at
// start-up: most agents never use it and its symbol tables and relocations
// alone cost about 1.5 MiB of resident memory.
struct CryptoLibrary {
    decltype(&EVP_MD_CTX_new) md_ctx_new;
    decltype(&EVP_MD_CTX_free) md_ctx_free;
    decltype(&EVP_sha256) sha256;
    decltype(&EVP_DigestInit_ex) digest_init;
    decltype(&EVP_DigestUpdate) digest_update;
    decltype(&EVP_DigestFinal_ex) digest_final;
    decltype(&ERR_get_error) err_get_error;
    decltype(&ERR_error_string_n) err_error_string_n;
    decltype(&ERR_clear_error) err_clear_error;
    decltype(&X509_verify_cert_error_string) x509_verify_cert_error_string;

    // The loaded library, or null with the reason in `error`.
    static const CryptoLibrary* Get(std::string& error);

    // The oldest queued OpenSSL error as text (the queue is cleared).
    std::string TakeError() const;
};

}  // namespace SDK
