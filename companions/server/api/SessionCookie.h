#pragma once

#include "companions/server/http/Request.h"

#include <string>
#include <string_view>

/// The cookie that holds the session of a page.
///
/// No code of a page can read it, it comes with requests of our own pages only, and where browsers
/// reach the server by TLS it goes over TLS only. There its name also begins with "__Host-":
/// browsers take such a cookie from the very host alone, so that nobody who has a neighbour's name,
/// or sits on the way of a plain connection, can plant one.
namespace kolvan::server::api {

/// Its name where browsers come without TLS.
inline constexpr const char* kSessionCookie = "kolvan_session";

/// The value that came with a request; empty when none did.
/// @param publicUrl how browsers reach the server; empty: as it listens
std::string shownSession(const http::Request& request, std::string_view publicUrl);

/// The field "Set-Cookie" that gives the browser a session.
std::string sessionCookie(const http::Request& request, std::string_view publicUrl,
                          const std::string& value);

/// The field "Set-Cookie" that takes it back.
std::string endedSessionCookie(const http::Request& request, std::string_view publicUrl);

}  // namespace kolvan::server::api
