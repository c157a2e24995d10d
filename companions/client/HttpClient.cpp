#include "companions/client/HttpClient.h"

#include "companions/client/Failure.h"

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <exception>
#include <new>
#include <type_traits>
#include <utility>

namespace kolvan::client {

namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30;  // of an answer that is kept
constexpr int kWaitMilliseconds = 1000;
constexpr long kPatienceSeconds = 60;

struct EasyCleanup {
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
struct MultiCleanup {
    void operator()(CURLM* handle) const noexcept { (void)curl_multi_cleanup(handle); }
};
struct ListCleanup {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};

template <typename Value>
void set(CURL* handle, CURLoption option, Value value) {
    static_assert(std::is_pointer_v<Value> || std::is_same_v<Value, long>);
    if (const CURLcode result = curl_easy_setopt(handle, option, value); result != CURLE_OK) {
        throw Failure(curl_easy_strerror(result));
    }
}

void check(CURLMcode result) {
    if (result != CURLM_OK) {
        throw Failure(curl_multi_strerror(result));
    }
}

/// What the callback fills.
struct Transfer {
    CURL* handle;
    const std::function<void(std::string_view)>& piece;
    HttpResponse response;
    std::exception_ptr thrown;

    void take(std::string_view bytes) {
        if (response.status == 0) {
            (void)curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response.status);  // is known
        }
        if (piece && response.status < 300) {
            piece(bytes);
        } else if (response.body.size() + bytes.size() > kMostBytes) {
            throw Failure("The server's answer is larger than 1 GiB.");
        } else {
            response.body += bytes;
        }
    }
};

std::size_t takeBytes(const char* data, std::size_t size, std::size_t count,
                      Transfer* transfer) noexcept {
    try {
        transfer->take({data, size * count});
        return size * count;
    } catch (...) {  // goes on once libcurl has returned
        transfer->thrown = std::current_exception();
        return 0;
    }
}

/// Takes a handle out of the other again, whatever happens.
class Running {
public:
    Running(CURLM* multiHandle, CURL* easyHandle) : multi(multiHandle), easy(easyHandle) {
        check(curl_multi_add_handle(multi, easy));
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { (void)curl_multi_remove_handle(multi, easy); /* it was added */ }

private:
    CURLM* const multi;
    CURL* const easy;
};

CURLcode run(CURLM* multi, CURL* easy, const HttpWatch& watch) {
    const Running running(multi, easy);
    for (;;) {
        int active = 0;
        check(curl_multi_perform(multi, &active));
        int left = 0;
        if (const CURLMsg* const message = curl_multi_info_read(multi, &left)) {
            return message->data.result;
        }
        curl_waitfd extra{watch.descriptor, CURL_WAIT_POLLIN, 0};
        const unsigned count = watch.descriptor >= 0 ? 1 : 0;
        check(curl_multi_poll(multi, &extra, count, kWaitMilliseconds, nullptr));
        if (count > 0 && extra.revents != 0) {
            watch.readable();
        }
    }
}

}  // namespace

struct HttpClient::Handles {
    Handles() : multi(curl_multi_init()), easy(curl_easy_init()) {
        if (multi == nullptr || easy == nullptr) {
            throw std::bad_alloc();
        }
    }

    const std::unique_ptr<CURLM, MultiCleanup> multi;
    const std::unique_ptr<CURL, EasyCleanup> easy;
};

HttpClient::HttpClient(std::string serverAddress, std::string accessToken,
                       std::string authorityFile)
    : address(std::move(serverAddress)),
      token(std::move(accessToken)),
      authorities(std::move(authorityFile)),
      handles(std::make_unique<Handles>()) {}

HttpClient::~HttpClient() = default;

HttpResponse HttpClient::send(const HttpRequest& request,
                              const std::function<void(std::string_view)>& piece,
                              const HttpWatch& watch) {
    CURL* const handle = handles->easy.get();
    curl_easy_reset(handle);
    std::array<char, CURL_ERROR_SIZE> errorText{};
    const std::string url = address + request.path;
    std::unique_ptr<curl_slist, ListCleanup> headers;
    const auto addHeader = [&headers](const std::string& line) {
        curl_slist* const longer = curl_slist_append(headers.get(), line.c_str());
        if (longer == nullptr) {
            throw std::bad_alloc();
        }
        (void)headers.release();  // is the longer one now
        headers.reset(longer);
    };
    if (!token.empty()) {
        addHeader("Authorization: Bearer " + token);
    }
    for (const std::string& line : request.headers) {
        addHeader(line);
    }
    if (request.body) {
        addHeader(request.body->empty() ? "Content-Type:" : "Content-Type: application/json");
        set(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body->size()));
        set(handle, CURLOPT_POSTFIELDS, request.body->c_str());
    }
    Transfer transfer{handle, piece, {}, {}};
    set(handle, CURLOPT_URL, url.c_str());
    set(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    set(handle, CURLOPT_HTTPHEADER, headers.get());
    set(handle, CURLOPT_USERAGENT, "kolvan");
    set(handle, CURLOPT_ERRORBUFFER, errorText.data());
    set(handle, CURLOPT_WRITEFUNCTION, &takeBytes);
    set(handle, CURLOPT_WRITEDATA, &transfer);
    // The token is for this server: no redirection is followed, and none leads to another protocol.
    set(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    if (!authorities.empty()) {
        // In place of the system's, the directory of which libcurl would look into as well: a
        // server that shows somebody else's certificate is none that the user has meant.
        set(handle, CURLOPT_CAINFO, authorities.c_str());
        set(handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
    set(handle, CURLOPT_NOSIGNAL, 1L);
    set(handle, CURLOPT_CONNECTTIMEOUT, kPatienceSeconds);
    // A server that works says something four times in this time, if only that it has nothing to
    // say.
    set(handle, CURLOPT_LOW_SPEED_TIME, kPatienceSeconds);
    set(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);

    const CURLcode result = run(handles->multi.get(), handle, watch);
    if (transfer.thrown) {
        std::rethrow_exception(transfer.thrown);
    }
    if (result == CURLE_SSL_CACERT_BADFILE) {
        throw Failure("The certificates of authorities in " + authorities +
                      " cannot be read: is it a file in the format PEM?");
    }
    if (result != CURLE_OK) {
        throw Failure("The server " + address + " cannot be reached: " +
                      (errorText[0] != '\0' ? errorText.data() : curl_easy_strerror(result)) + "." +
                      (result == CURLE_PEER_FAILED_VERIFICATION
                           ? " With an authority of your own, --ca FILE names its certificate."
                           : ""));
    }
    (void)curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &transfer.response.status);  // is known
    const char* type = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type != nullptr) {
        transfer.response.contentType = type;
    }
    return std::move(transfer.response);
}

std::string percentEncoded(std::string_view text) {
    static constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string result;
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        const bool letter = (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z');
        if (letter || (code >= '0' && code <= '9') || code == '-' || code == '_' || code == '.' ||
            code == '~') {
            result += character;
        } else {
            result += '%';
            result += kDigits[code >> 4];
            result += kDigits[code & 0x0F];
        }
    }
    return result;
}

}  // namespace kolvan::client
