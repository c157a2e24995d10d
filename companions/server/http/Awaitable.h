#pragma once

// clang-format off
#include <utility>  // first: the next one needs std::exchange and does not ask for it (Boost 1.74)

#include <boost/asio/awaitable.hpp>
// clang-format on

namespace kolvan::server::http {

/// What a coroutine of the network thread returns.
template <typename Result>
using Awaitable = boost::asio::awaitable<Result>;

}  // namespace kolvan::server::http
