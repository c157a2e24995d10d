#pragma once

#include <curl/curl.h>

#include <cstdio>
#include <memory>

namespace cagnt1 {

struct CurlEasyCleanup {
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
using CurlEasyHandle = std::unique_ptr<CURL, CurlEasyCleanup>;

struct CurlListFree {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using CurlHeaderList = std::unique_ptr<curl_slist, CurlListFree>;

struct CurlFormFree {
    void operator()(curl_mime* form) const noexcept { curl_mime_free(form); }
};
using CurlForm = std::unique_ptr<curl_mime, CurlFormFree>;

struct FileClose {
    // A file that was written whole is closed by its writer, who looks at the result. This one has
    // not been, and its failure has been told.
    void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileClose>;

/// Sets up the transport library for the process while it lives.
class CurlLibrary {
public:
    CurlLibrary() : result(curl_global_init(CURL_GLOBAL_ALL)) {}
    ~CurlLibrary() {
        if (result == CURLE_OK) {
            curl_global_cleanup();
        }
    }
    CurlLibrary(const CurlLibrary&) = delete;
    CurlLibrary& operator=(const CurlLibrary&) = delete;

    const CURLcode result;
};

}  // namespace cagnt1
