#include "TlsLibrary.h"

#include "sdk/LazyLibrary.h"

namespace Agent {

const TlsLibrary* TlsLibrary::Get(std::string& error) {
    static SDK::LoadedTable<TlsLibrary> table;
    return table.Get(error, [](TlsLibrary& tls, std::string& loadError) {
        SDK::LazyLibrary lib("libssl.so.3");
        return (tls.crypto = SDK::CryptoLibrary::Get(loadError)) != nullptr && lib.Open(loadError) &&
               lib.Resolve("TLS_client_method", tls.client_method, loadError) &&
               lib.Resolve("SSL_CTX_new", tls.ctx_new, loadError) &&
               lib.Resolve("SSL_CTX_free", tls.ctx_free, loadError) &&
               lib.Resolve("SSL_CTX_ctrl", tls.ctx_ctrl, loadError) &&
               lib.Resolve("SSL_CTX_set_verify", tls.ctx_set_verify, loadError) &&
               lib.Resolve("SSL_CTX_set_default_verify_paths", tls.ctx_set_default_verify_paths, loadError) &&
               lib.Resolve("SSL_CTX_load_verify_locations", tls.ctx_load_verify_locations, loadError) &&
               lib.Resolve("SSL_new", tls.ssl_new, loadError) &&
               lib.Resolve("SSL_free", tls.ssl_free, loadError) &&
               lib.Resolve("SSL_ctrl", tls.ssl_ctrl, loadError) &&
               lib.Resolve("SSL_set_fd", tls.set_fd, loadError) &&
               lib.Resolve("SSL_set1_host", tls.set1_host, loadError) &&
               lib.Resolve("SSL_connect", tls.connect, loadError) &&
               lib.Resolve("SSL_get_verify_result", tls.get_verify_result, loadError) &&
               lib.Resolve("SSL_write", tls.write, loadError) &&
               lib.Resolve("SSL_shutdown", tls.shutdown, loadError);
    });
}

}  // namespace Agent
