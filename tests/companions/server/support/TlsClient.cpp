#include "tests/companions/server/support/TlsClient.h"

#include <cstddef>
#include <memory>

namespace kolvan::test {

namespace {

std::size_t append(char* data, std::size_t size, std::size_t count, void* text) {
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
}

}  // namespace

TlsAnswer sendOverTls(const TlsRequest& request) {
    TlsAnswer answer;
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> fields(nullptr,
                                                                       curl_slist_free_all);
    for (const std::string& line : request.fields) {
        curl_slist* const longer = curl_slist_append(fields.get(), line.c_str());
        (void)fields.release();  // is the longer one now
        fields.reset(longer);
    }
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                     curl_easy_cleanup);
    const std::string url = "https://127.0.0.1:" + std::to_string(request.port) + request.path;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_CAINFO, request.authority.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_SSLVERSION, request.tlsVersions);
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, fields.get());
    if (request.body) {
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, request.body->data());
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body->size()));
    }
    curl_easy_setopt(handle.get(), CURLOPT_HEADERFUNCTION, append);
    curl_easy_setopt(handle.get(), CURLOPT_HEADERDATA, &answer.head);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(handle.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    answer.result = curl_easy_perform(handle.get());
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

}  // namespace kolvan::test
