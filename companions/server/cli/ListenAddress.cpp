#include "companions/server/cli/ListenAddress.h"

#include <charconv>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace kolvan::server {

namespace {

[[noreturn]] void refuse(const std::string& text) {
    throw std::invalid_argument(
        "'" + text +
        "' is not of the form ADDRESS:PORT, such as 127.0.0.1:8470, [::1]:8470 "
        "or 0.0.0.0:8470");
}

bool isIpv4(const std::string& address) {
    in_addr parsed{};
    return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;
}

bool isIpv6(const std::string& address) {
    in6_addr parsed{};
    return ::inet_pton(AF_INET6, address.c_str(), &parsed) == 1;
}

}  // namespace

bool ListenAddress::isLoopback() const {
    in_addr four{};
    if (::inet_pton(AF_INET, address.c_str(), &four) == 1) {
        return (ntohl(four.s_addr) >> 24U) == 127;
    }
    in6_addr six{};
    return ::inet_pton(AF_INET6, address.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

ListenAddress readListenAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        refuse(text);
    }
    ListenAddress listen{text.substr(0, colon), 0};
    std::string& address = listen.address;
    if (address == "localhost") {
        address = "127.0.0.1";
    } else if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
        if (!isIpv6(address)) {
            refuse(text);
        }
    } else if (!isIpv4(address)) {
        refuse(text);
    }
    const char* const begin = text.data() + colon + 1;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(begin, end, listen.port);
    if (error != std::errc() || stop != end) {
        refuse(text);
    }
    return listen;
}

}  // namespace kolvan::server
