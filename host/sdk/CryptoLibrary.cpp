#include "sdk/CryptoLibrary.h"

#include "sdk/LazyLibrary.h"

namespace SDK {

const CryptoLibrary* CryptoLibrary::Get(std::string& error) {
    static LoadedTable<CryptoLibrary> table;
    return table.Get(error, [](CryptoLibrary& crypto, std::string& loadError) {
        LazyLibrary lib("libcrypto.so.3");
        return lib.Open(loadError) && lib.Resolve("EVP_MD_CTX_new", crypto.md_ctx_new, loadError) &&
               lib.Resolve("EVP_MD_CTX_free", crypto.md_ctx_free, loadError) &&
               lib.Resolve("EVP_sha256", crypto.sha256, loadError) &&
               lib.Resolve("EVP_DigestInit_ex", crypto.digest_init, loadError) &&
               lib.Resolve("EVP_DigestUpdate", crypto.digest_update, loadError) &&
               lib.Resolve("EVP_DigestFinal_ex", crypto.digest_final, loadError) &&
               lib.Resolve("ERR_get_error", crypto.err_get_error, loadError) &&
               lib.Resolve("ERR_error_string_n", crypto.err_error_string_n, loadError) &&
               lib.Resolve("ERR_clear_error", crypto.err_clear_error, loadError) &&
               lib.Resolve("X509_verify_cert_error_string", crypto.x509_verify_cert_error_string, loadError);
    });
}

std::string CryptoLibrary::TakeError() const {
    const unsigned long code = err_get_error();
    char text[256] = "unknown TLS error";
    if (code != 0) {
        err_error_string_n(code, text, sizeof(text));
    }
    err_clear_error();
    return text;
}

}  // namespace SDK
