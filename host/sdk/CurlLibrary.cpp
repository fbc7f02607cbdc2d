#include "CurlLibrary.h"

#include <dlfcn.h>

#include <mutex>

namespace SDK {

namespace {

template <class Function>
bool Resolve(void* handle, const char* name, Function& function, std::string& error) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
    if (function == nullptr) {
        error = std::string("libcurl.so.4 has no ") + name;
        return false;
    }
    return true;
}

}  // namespace

const CurlLibrary* CurlLibrary::Get(std::string& error) {
    static std::once_flag once;
    static CurlLibrary library{};
    static const CurlLibrary* loaded = nullptr;
    static std::string loadError;
    std::call_once(once, [] {
        void* handle = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char* reason = dlerror();
            loadError =
                std::string("cannot load libcurl.so.4: ") + (reason != nullptr ? reason : "unknown error");
            return;
        }
        const bool resolved = Resolve(handle, "curl_global_init", library.global_init, loadError) &&
                              Resolve(handle, "curl_easy_init", library.easy_init, loadError) &&
                              Resolve(handle, "curl_easy_setopt", library.easy_setopt, loadError) &&
                              Resolve(handle, "curl_easy_perform", library.easy_perform, loadError) &&
                              Resolve(handle, "curl_easy_getinfo", library.easy_getinfo, loadError) &&
                              Resolve(handle, "curl_easy_cleanup", library.easy_cleanup, loadError) &&
                              Resolve(handle, "curl_easy_strerror", library.easy_strerror, loadError) &&
                              Resolve(handle, "curl_slist_append", library.slist_append, loadError) &&
                              Resolve(handle, "curl_slist_free_all", library.slist_free_all, loadError);
        if (!resolved) {
            return;
        }
        const CURLcode init = library.global_init(CURL_GLOBAL_DEFAULT);
        if (init != CURLE_OK) {
            loadError = std::string("libcurl init failed: ") + library.easy_strerror(init);
            return;
        }
        loaded = &library;
    });
    if (loaded == nullptr) {
        error = loadError;
    }
    return loaded;
}

}  // namespace SDK
