#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/http/Awaitable.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <initializer_list>
#include <optional>

namespace kolvan::server {

/// Signals that are waited for instead of interrupting.
///
/// They are blocked in the thread that makes this, and in those that it starts later: make it
/// before there are others. Programs that this process starts have to unblock them.
///
/// Threads: that of the executor.
class Signals {
public:
    /// @throws std::system_error
    Signals(const boost::asio::any_io_executor& executor, std::initializer_list<int> numbers);

    /// Blocked signals stay blocked, so that none takes effect between this and the end.
    ~Signals() = default;

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Waits for the next signal. @return its number; nothing after `stop`
    http::Awaitable<std::optional<int>> next();

    /// Ends the waiting.
    void stop();

private:
    boost::asio::posix::stream_descriptor descriptor;
    bool stopped = false;
};

/// Ends this process by a signal, as if it had never been waited for.
[[noreturn]] void dieOf(int signal);

}  // namespace kolvan::server
