#include "companions/server/api/SessionCookie.h"

#include <algorithm>

namespace kolvan::server::api {

namespace {

constexpr const char* kSessionCookieOverTls = "__Host-kolvan_session";
constexpr const char* kAttributes = "; Path=/; HttpOnly; SameSite=Strict";

bool isOverTls(const http::Request& request, std::string_view publicUrl) {
    return request.head().secure || publicUrl.starts_with("https://");
}

std::string valueOf(std::string_view cookies, std::string_view name) {
    while (!cookies.empty()) {
        const std::size_t end = cookies.find(';');
        std::string_view pair = cookies.substr(0, end);
        cookies = end == std::string_view::npos ? std::string_view() : cookies.substr(end + 1);
        pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
            return std::string(pair.substr(equals + 1));
        }
    }
    return {};
}

std::string cookie(const http::Request& request, std::string_view publicUrl,
                   const std::string& value) {
    const bool tls = isOverTls(request, publicUrl);
    return std::string(tls ? kSessionCookieOverTls : kSessionCookie) + '=' + value + kAttributes +
           (tls ? "; Secure" : "");
}

}  // namespace

std::string shownSession(const http::Request& request, std::string_view publicUrl) {
    return valueOf(request.field("Cookie").value_or(""),
                   isOverTls(request, publicUrl) ? kSessionCookieOverTls : kSessionCookie);
}

std::string sessionCookie(const http::Request& request, std::string_view publicUrl,
                          const std::string& value) {
    return cookie(request, publicUrl, value);
}

std::string endedSessionCookie(const http::Request& request, std::string_view publicUrl) {
    return cookie(request, publicUrl, "") + "; Max-Age=0";
}

}  // namespace kolvan::server::api
