#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Request.h"
#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/protocol/FormReader.h"
#include "companions/server/protocol/MessageReader.h"

#include <boost/asio/thread_pool.hpp>

namespace kolvan::server::agents {

/// Reads the message in a request's body, of whatever size, in pieces.
/// @param threads where it is decoded and `output` is called, which may block
/// @return the message without its output
/// @throws http::HttpError with status 400 when it is no message; what `Request::readSome` and
///     `output` throw
http::Awaitable<protocol::AgentMessage> readMessage(http::Request& request,
                                                    boost::asio::thread_pool& threads,
                                                    protocol::MessageReader::Output output);

/// Reads the form in a request's body, of whatever size, in pieces.
/// @param threads where `listener` is called, which may block
/// @throws http::HttpError with status 415 when it is not announced as a form, 400 when it is none;
///     what `Request::readSome` and `listener` throw
http::Awaitable<void> readForm(http::Request& request, boost::asio::thread_pool& threads,
                               protocol::FormListener& listener);

}  // namespace kolvan::server::agents
