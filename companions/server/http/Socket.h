#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/http/Awaitable.h"

#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <functional>
#include <memory>

namespace kolvan::server::http {

/// Which way bytes are to go.
enum class Direction { In, Out };

/// A connected socket that does not block, and the waiting for it.
///
/// Threads: those of its executor, which runs one thing at a time.
class Socket {
public:
    using Duration = std::chrono::steady_clock::duration;

    /// Takes the socket over and makes it non-blocking.
    Socket(const boost::asio::any_io_executor& executor, basekit2::UniqueFd descriptor);

    /// Closes the socket; nobody may be waiting.
    ~Socket();

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int descriptor() const;

    /// Waits until a call in that direction would do something, an end or an error included. One
    /// wait at a time.
    /// @return false when the time was over first
    Awaitable<bool> wait(Direction direction, Duration patience);

    /// Calls `gone` once when the other side has closed the connection or its writing half. To be
    /// used while nothing is read: what arrives meanwhile is left where it is.
    void watchForHangUp(std::function<void()> gone);

    /// Ends the watch; `gone` is not called any more.
    void endWatch();

    /// Ends the incoming half: whoever reads, now or later, sees the end. What is being sent is
    /// sent.
    void shutDownReading() const;

    /// Announces that nothing more will be sent.
    void shutDownWriting() const;

    /// Ends both halves, so that every wait is over.
    void shutDown() const;

private:
    struct State;
    struct Watch;

    // Shared with what Asio still has to call after the socket is gone.
    const std::shared_ptr<State> state;
    std::shared_ptr<Watch> watch;
};

}  // namespace kolvan::server::http
