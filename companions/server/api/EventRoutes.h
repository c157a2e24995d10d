#pragma once

#include "companions/server/api/Api.h"
#include "companions/server/api/EventPosition.h"

#include <boost/asio/any_io_executor.hpp>

#include <chrono>

namespace kolvan::server::api {

/// How often a listener to whom there is nothing to say is told that he is still connected: less
/// than the time after which proxies lose patience.
inline constexpr std::chrono::seconds kSignOfLife{15};

/// Sends the events of a collection behind `from` until it has ended, the listener has gone or the
/// server stops. While nothing happens it sends a comment after each `signOfLife`.
http::Awaitable<void> sendEvents(const Surroundings& parts, CollectionId collection,
                                 EventPosition from, http::BodyWriter& writer,
                                 std::chrono::steady_clock::duration signOfLife = kSignOfLife);

/// The events of collections. `api` outlives the router's use.
void addEventRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
