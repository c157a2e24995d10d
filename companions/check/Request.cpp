#include "companions/check/Request.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kolvan::check {

namespace {

// A message without a type: no server takes it for an agent's.
constexpr char kEmptyMessage[] = R"({"messageType":"","messageParameters":{}})";

// More of an answer than it takes to recognise it.
constexpr std::size_t kEnough = std::size_t{64} * 1024;

// "address:port" of the other end; empty without one.
std::string peerOf(int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (::getpeername(socket, generic, &length) != 0 ||
        ::getnameinfo(generic, length, host.data(), host.size(), port.data(), port.size(),
                      NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return {};
    }
    const std::string text = host.data();
    return (address.ss_family == AF_INET6 ? "[" + text + "]" : text) + ":" + port.data();
}

struct EasyCleanup {
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};

// What the callbacks fill.
struct Answer {
    std::string body;
    std::map<std::string, std::string> headers;  // of the last answer, names in lower case
};

std::size_t keepBody(const char* data, std::size_t size, std::size_t count,
                     Answer* answer) noexcept {
    try {
        const std::size_t room = kEnough - std::min(kEnough, answer->body.size());
        answer->body.append(data, std::min(room, size * count));
        return size * count;
    } catch (const std::exception&) {
        return 0;  // ends the transfer with an error
    }
}

void keepHeader(Answer& answer, std::string_view line) {
    if (line.starts_with("HTTP/")) {
        answer.headers.clear();
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return;
    }
    std::string name(line.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    line.remove_prefix(colon + 1);
    const std::size_t begin = line.find_first_not_of(" \t");
    const std::size_t end = line.find_last_not_of(" \t\r\n");
    answer.headers[name] =
        end == std::string_view::npos || begin > end ? "" : line.substr(begin, end - begin + 1);
}

std::size_t keepHeaders(const char* data, std::size_t size, std::size_t count,
                        Answer* answer) noexcept {
    try {
        keepHeader(*answer, {data, size * count});
        return size * count;
    } catch (const std::exception&) {
        return 0;  // ends the transfer with an error
    }
}

template <typename Value>
void set(CURL* handle, CURLoption option, Value value) {
    static_assert(std::is_pointer_v<Value> || std::is_same_v<Value, long>);
    if (const CURLcode result = curl_easy_setopt(handle, option, value); result != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(result));
    }
}

// 0 where the library knows nothing.
long numberOf(CURL* handle, CURLINFO info) {
    long number = 0;
    return curl_easy_getinfo(handle, info, &number) == CURLE_OK ? number : 0;
}

std::string textOf(CURL* handle, CURLINFO info) {
    const char* text = nullptr;
    return curl_easy_getinfo(handle, info, &text) == CURLE_OK && text != nullptr ? text : "";
}

// The library's own word for it. From 8.7 on it forgets where something fails later on.
std::string peerOf(CURL* handle) {
    const std::string address = textOf(handle, CURLINFO_PRIMARY_IP);
    if (address.empty()) {
        return {};
    }
    const bool isLong = address.find(':') != std::string::npos;
    return (isLong ? "[" + address + "]" : address) + ":" +
           std::to_string(numberOf(handle, CURLINFO_PRIMARY_PORT));
}

// Keeps the address of whoever the socket has reached, before it is closed. The system no longer
// knows it once the other end has gone.
int closeSocket(std::string* peer, curl_socket_t socket) noexcept {
    try {
        const std::string reached = peerOf(socket);
        *peer = reached.empty() ? *peer : reached;
    } catch (const std::exception&) {
        // Deliberate: no memory for an address is no reason to keep the socket.
    }
    return ::close(socket);
}

}  // namespace

Exchange ask(const std::string& address, bool verify, std::chrono::seconds patience) {
    Answer answer;
    Exchange exchange;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    const std::unique_ptr<CURL, EasyCleanup> handle(curl_easy_init());
    if (handle == nullptr) {
        throw std::bad_alloc();
    }
    set(handle.get(), CURLOPT_URL, address.c_str());
    set(handle.get(), CURLOPT_POSTFIELDS, kEmptyMessage);
    set(handle.get(), CURLOPT_ERRORBUFFER, errorText.data());
    set(handle.get(), CURLOPT_WRITEFUNCTION, &keepBody);
    set(handle.get(), CURLOPT_WRITEDATA, &answer);
    set(handle.get(), CURLOPT_HEADERFUNCTION, &keepHeaders);
    set(handle.get(), CURLOPT_HEADERDATA, &answer);
    set(handle.get(), CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    set(handle.get(), CURLOPT_TIMEOUT, static_cast<long>(patience.count()));
    set(handle.get(), CURLOPT_CLOSESOCKETFUNCTION, &closeSocket);
    set(handle.get(), CURLOPT_CLOSESOCKETDATA, &exchange.peer);
    set(handle.get(), CURLOPT_FORBID_REUSE, 1L);  // closed when the exchange is over
    set(handle.get(), CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
    set(handle.get(), CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);

    exchange.error = curl_easy_perform(handle.get());
    exchange.errorText = errorText[0] != '\0'
                             ? errorText.data()
                             : curl_easy_strerror(static_cast<CURLcode>(exchange.error));
    if (std::string peer = peerOf(handle.get()); !peer.empty()) {
        exchange.peer = std::move(peer);
    }
    curl_off_t handshake = 0;
    (void)curl_easy_getinfo(handle.get(), CURLINFO_APPCONNECT_TIME_T, &handshake);  // 0: none
    exchange.encrypted = handshake != 0;
    exchange.verification = numberOf(handle.get(), CURLINFO_SSL_VERIFYRESULT);
    exchange.status = numberOf(handle.get(), CURLINFO_RESPONSE_CODE);
    exchange.proxyStatus = numberOf(handle.get(), CURLINFO_HTTP_CONNECTCODE);
    exchange.contentType = textOf(handle.get(), CURLINFO_CONTENT_TYPE);
    exchange.redirect = textOf(handle.get(), CURLINFO_REDIRECT_URL);
    exchange.via = answer.headers["via"];
    exchange.server = answer.headers["server"];
    exchange.body = std::move(answer.body);
    if (const std::string& date = answer.headers["date"]; !date.empty()) {
        const std::time_t seconds = curl_getdate(date.c_str(), nullptr);
        if (seconds != -1) {
            exchange.date = std::chrono::system_clock::from_time_t(seconds);
        }
    }
    return exchange;
}

}  // namespace kolvan::check
