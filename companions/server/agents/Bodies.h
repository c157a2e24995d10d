#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Request.h"
#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/protocol/FormReader.h"
#include "companions/server/protocol/MessageReader.h"

#include <boost/asio/thread_pool.hpp>

#include <functional>

namespace kolvan::server::agents {

/// Reads the message in a request's body, of whatever size, in pieces.
/// @param threads where it is decoded and the functions are called, which may block
/// @param output takes a collector's output while it comes
/// @param handle takes the message without its output, at the end
/// @throws http::HttpError with status 400 when it is no message; what `Request::readOnPool`,
///     `output` and `handle` throw
http::Awaitable<void> readMessage(http::Request& request, boost::asio::thread_pool& threads,
                                  protocol::MessageReader::Output output,
                                  std::function<void(protocol::AgentMessage)> handle);

/// Reads the form in a request's body, of whatever size, in pieces.
/// @param threads where `listener` is called, which may block
/// @throws http::HttpError with status 415 when it is not announced as a form, 400 when it is none;
///     what `Request::readOnPool` and `listener` throw
http::Awaitable<void> readForm(http::Request& request, boost::asio::thread_pool& threads,
                               protocol::FormListener& listener);

}  // namespace kolvan::server::agents
