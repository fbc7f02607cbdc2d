#include "sdk/CurlLibrary.h"

#include "sdk/LazyLibrary.h"

namespace SDK {

const CurlLibrary* CurlLibrary::Get(std::string& error) {
    static LoadedTable<CurlLibrary> table;
    return table.Get(error, [](CurlLibrary& curl, std::string& loadError) {
        LazyLibrary lib("libcurl.so.4");
        const bool resolved = lib.Open(loadError) &&
                              lib.Resolve("curl_global_init", curl.global_init, loadError) &&
                              lib.Resolve("curl_easy_init", curl.easy_init, loadError) &&
                              lib.Resolve("curl_easy_setopt", curl.easy_setopt, loadError) &&
                              lib.Resolve("curl_easy_perform", curl.easy_perform, loadError) &&
                              lib.Resolve("curl_easy_getinfo", curl.easy_getinfo, loadError) &&
                              lib.Resolve("curl_easy_cleanup", curl.easy_cleanup, loadError) &&
                              lib.Resolve("curl_easy_strerror", curl.easy_strerror, loadError) &&
                              lib.Resolve("curl_slist_append", curl.slist_append, loadError) &&
                              lib.Resolve("curl_slist_free_all", curl.slist_free_all, loadError);
        if (!resolved) {
            return false;
        }
        const CURLcode init = curl.global_init(CURL_GLOBAL_DEFAULT);
        if (init != CURLE_OK) {
            loadError = std::string("libcurl init failed: ") + curl.easy_strerror(init);
            return false;
        }
        return true;
    });
}

}  // namespace SDK
