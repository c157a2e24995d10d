#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Limits.h"
#include "companions/server/http/Request.h"
#include "companions/server/http/Response.h"
#include "companions/server/http/Stream.h"

#include <boost/asio/thread_pool.hpp>

#include <functional>

namespace kolvan::server::http {

/// How a response has to go out.
struct ResponseManner {
    bool headOnly = false;    ///< the request was HEAD
    bool knowsChunks = true;  ///< the client knows HTTP/1.1
    bool keepAlive = true;    ///< cleared where the end of the body is the end of the connection
    std::string range;        ///< "Range" of the request; empty for none
};

/// Sends a response.
/// @param threads where files are read
/// @param onEnd how a stream's writer registers; see `BodyWriter::onEnd`
/// @throws ConnectionLost; what a stream's coroutine throws; std::system_error when a file cannot
///     be read: each after a part of the response may have gone out
Awaitable<void> writeResponse(Stream& stream, const Limits& limits,
                              boost::asio::thread_pool& threads, Response& response,
                              ResponseManner& manner,
                              std::function<void(std::function<void()>)> onEnd);

}  // namespace kolvan::server::http
