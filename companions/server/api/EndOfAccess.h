#pragma once

#include "companions/server/http/Response.h"
#include "companions/server/store/Store.h"

#include <boost/asio/thread_pool.hpp>

#include <functional>

namespace kolvan::server::api {

/// Makes an answer that is still being sent end when the access of whoever has asked for it ends: a
/// stream at once, a file before its next piece. An answer that is in memory already goes out
/// whole.
/// @param wakeUps, threads outlive the sending
/// @param lasts whether the access goes on; asked on `threads`, which go before what it refers to
void endWithAccess(WakeUps& wakeUps, boost::asio::thread_pool& threads,
                   const std::function<bool()>& lasts, http::Response& response);

}  // namespace kolvan::server::api
