#pragma once

#include "companions/server/http/Awaitable.h"

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <exception>
#include <optional>
#include <type_traits>

namespace kolvan::server::http {

namespace pool {

/// What a call gives back, in a form that any type fits into.
struct Nothing {};
template <typename Call>
using Result = std::conditional_t<std::is_void_v<std::invoke_result_t<Call&>>, Nothing,
                                  std::invoke_result_t<Call&>>;

}  // namespace pool

/// Makes a call that may block on a thread of the pool, and comes back to the coroutine's own
/// thread with what it returned or threw.
///
/// What the call refers to must live until then, which holds for everything that the waiting
/// coroutine owns. A call that waits in the pool's queue when the pool is stopped is never made.
/// The pool is joined before the coroutine's context goes: its threads still have to do with that
/// for a moment after the call.
template <typename Call>
Awaitable<std::invoke_result_t<Call&>> onPool(boost::asio::thread_pool& threads, Call call) {
    using Result = pool::Result<Call>;
    struct Shared {
        std::optional<Result> result;
        std::exception_ptr failure;
    };
    Shared shared;
    const auto begin = [&threads, &shared, &call](auto&& handler) {
        using CompletionHandler = std::decay_t<decltype(handler)>;
        auto executor = boost::asio::get_associated_executor(handler);
        boost::asio::post(
            threads, [&shared, &call,
                      completion = CompletionHandler(std::forward<decltype(handler)>(handler)),
                      guard = boost::asio::make_work_guard(executor)]() mutable {
                try {
                    if constexpr (std::is_same_v<Result, pool::Nothing>) {
                        call();
                        shared.result.emplace();
                    } else {
                        shared.result.emplace(call());
                    }
                } catch (...) {  // whatever it is, the coroutine gets it
                    shared.failure = std::current_exception();
                }
                boost::asio::post(guard.get_executor(),
                                  [completion = std::move(completion)]() mutable { completion(); });
            });
    };
    co_await boost::asio::async_initiate<const boost::asio::use_awaitable_t<>, void()>(
        begin, boost::asio::use_awaitable);
    if (shared.failure) {
        std::rethrow_exception(shared.failure);
    }
    if constexpr (!std::is_void_v<std::invoke_result_t<Call&>>) {
        co_return std::move(*shared.result);
    }
}

}  // namespace kolvan::server::http
