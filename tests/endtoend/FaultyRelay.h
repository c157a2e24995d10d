#pragma once

#include "basekit2/UniqueFd.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace kolvan::test {

/// What happens to one request on its way to the server.
enum class Treatment {
    Pass,           ///< it arrives, and so does the answer
    Reset,          ///< the connection is reset before the server hears of it
    ResetInAnswer,  ///< the connection is reset after a part of the answer
    Hold            ///< it is kept until `release()`, then it passes
};

/// Stands between the agent and its server and does to connections what a network may do. The
/// agent makes one connection for each request.
///
/// Threads: any member from any thread.
class FaultyRelay {
public:
    /// Given the request's line and, for messages, its body; called from many threads at once.
    using Rule = std::function<Treatment(const std::string& request)>;

    /// Listens on loopback and passes everything on to a port of loopback.
    /// @throws std::system_error when there is no port to be had
    explicit FaultyRelay(int serverPort);

    /// Does what `cut()` does.
    ~FaultyRelay();

    FaultyRelay(const FaultyRelay&) = delete;
    FaultyRelay& operator=(const FaultyRelay&) = delete;

    std::string endpoint() const;

    /// Decides about the requests that come from now on; everything passes before.
    void treat(Rule rule);

    /// Lets what is held pass, and what would be held later.
    void release();

    /// Blocks until so many requests are held.
    /// @return false when the deadline passed
    bool waitForHeld(std::size_t count) const;

    /// Resets all connections and refuses new ones from now on: the server is gone.
    void cut();

private:
    void acceptConnections();
    void serve(basekit2::UniqueFd client);
    bool await(int descriptor) const;
    std::string readRequest(int client) const;
    Treatment decide(const std::string& request);
    void passOn(int client, const std::string& request, Treatment treatment) const;

    const int serverPort;
    basekit2::UniqueFd listener;
    int port = 0;
    basekit2::UniqueFd cutEvent;

    mutable std::mutex mutex;  // guards rule, held, released and gone
    mutable std::condition_variable changed;
    Rule rule;
    std::size_t held = 0;
    bool released = false;
    bool gone = false;

    std::list<std::thread> connections;  // touched by the accepting thread, and after its end
    std::thread acceptor;
};

}  // namespace kolvan::test
