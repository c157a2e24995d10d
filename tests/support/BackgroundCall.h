#pragma once

#include "tests/support/ThreadStates.h"

#include <chrono>
#include <future>
#include <type_traits>
#include <utility>

#include <unistd.h>

namespace kolvan::test {

/// A call on a thread of its own, which can be seen to wait. Threads: used by one.
template <typename Result>
class BackgroundCall {
public:
    /// Blocks until the thread is about to make the call.
    template <typename Call>
    explicit BackgroundCall(Call call) {
        std::promise<pid_t> started;
        std::future<pid_t> number = started.get_future();
        result = std::async(std::launch::async,
                            [started = std::move(started), call = std::move(call)]() mutable {
                                started.set_value(::gettid());
                                return call();
                            });
        thread = number.get();
    }

    /// Blocks until the call waits for something or has come back.
    /// @return whether it waits; a short wait of another kind counts, so that a wrong answer lets
    ///         a test pass and never fails one
    /// @throws std::runtime_error when the deadline passes
    bool isBlocked() const {
        lookUntil([this] { return hasEnded() || isSleeping(thread); }, "a call does not wait");
        return !hasEnded();
    }

    bool hasEnded() const {
        return result.wait_for(std::chrono::seconds::zero()) == std::future_status::ready;
    }

    /// What the call returned or threw. Blocks for it; once.
    Result get() { return result.get(); }

private:
    std::future<Result> result;
    pid_t thread = 0;
};

template <typename Call>
BackgroundCall(Call) -> BackgroundCall<std::invoke_result_t<Call&>>;

}  // namespace kolvan::test
