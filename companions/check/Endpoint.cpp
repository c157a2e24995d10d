#include "companions/check/Endpoint.h"

#include <curl/curl.h>

#include <charconv>
#include <memory>
#include <stdexcept>

namespace kolvan::check {

namespace {

struct AddressFree {
    void operator()(CURLU* address) const noexcept { curl_url_cleanup(address); }
};
using AddressHandle = std::unique_ptr<CURLU, AddressFree>;

struct TextFree {
    void operator()(char* text) const noexcept { curl_free(text); }
};

AddressHandle parse(const std::string& text) {
    AddressHandle address(curl_url());
    if (address == nullptr) {
        throw std::bad_alloc();
    }
    const CURLUcode result = curl_url_set(address.get(), CURLUPART_URL, text.c_str(),
                                          CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME);
    if (result != CURLUE_OK) {
        throw std::invalid_argument(curl_url_strerror(result));
    }
    return address;
}

// Empty when the address has no such part.
std::string partOf(const AddressHandle& address, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    const CURLUcode result = curl_url_get(address.get(), part, &text, flags);
    const std::unique_ptr<char, TextFree> owner(text);
    return result == CURLUE_OK ? std::string(text) : std::string();
}

}  // namespace

bool Endpoint::isLocal() const {
    return host == "localhost" || host.starts_with("127.") || host == "::1";
}

Endpoint parseEndpoint(const std::string& address) {
    const AddressHandle parsed = parse(address);
    Endpoint endpoint;
    endpoint.scheme = partOf(parsed, CURLUPART_SCHEME);
    endpoint.schemeWritten = address.find("://") != std::string::npos;
    endpoint.host = partOf(parsed, CURLUPART_HOST);
    if (endpoint.host.starts_with('[') && endpoint.host.ends_with(']')) {
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    }
    const std::string port = partOf(parsed, CURLUPART_PORT, CURLU_DEFAULT_PORT);
    (void)std::from_chars(port.data(), port.data() + port.size(), endpoint.port);  // has no other
    endpoint.hasQueryOrFragment = address.find_first_of("?#") != std::string::npos;
    return endpoint;
}

std::string withoutCredentials(const std::string& address) {
    const std::size_t scheme = address.find("://");
    const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t end = address.find_first_of("/?#", begin);
    const std::size_t at = address.substr(0, end).rfind('@');
    return at == std::string::npos || at < begin
               ? address
               : address.substr(0, begin) + address.substr(at + 1);
}

}  // namespace kolvan::check
