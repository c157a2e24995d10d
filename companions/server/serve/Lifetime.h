#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/http/Awaitable.h"
#include "companions/server/serve/Service.h"
#include "companions/server/serve/Signals.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace kolvan::server {

/// How this process was started, and so how its successor is.
struct StartedAs {
    std::string program;  ///< path of the executable
    std::vector<std::string> arguments;
    bool atTerminal = false;  ///< standard input was one
};

/// The life of a server process as signals direct it.
///
/// SIGTERM and SIGINT: it stops accepting, answers held polls, lets transfers end and is done; the
/// second one ends it at once. A process that has been replaced and is waiting for its last
/// transfers has only had a SIGHUP: its first SIGTERM shortens its patience, the second one ends
/// it.
///
/// SIGHUP: the program is started anew, with the configuration and the version that are there now,
/// on the same listening sockets. Once that one serves, this one lets go of its polls, whose agents
/// then ask the new one, lets transfers end and is done. No agent notices. Should the new one not
/// serve, this one goes on. The SIGHUP of a terminal that has gone ends it as SIGTERM does: whoever
/// closes a window does not expect a new server. Another SIGHUP changes nothing while the new
/// process starts, nor in a process that is ending.
///
/// Threads: that of the executor.
class Lifetime {
public:
    /// How long transfers may take when nothing follows, and when a successor serves already.
    static constexpr std::chrono::seconds kPatience{60};
    static constexpr std::chrono::hours kPatienceOfPredecessor{1};

    /// @param ownSignals SIGTERM, SIGINT and SIGHUP
    /// @param listening the sockets on which the service listens, to be handed on
    /// The references outlive this.
    Lifetime(boost::asio::any_io_executor anyExecutor, Service& ownService, Signals& ownSignals,
             std::vector<basekit2::UniqueFd> listening, StartedAs start,
             std::function<void(std::string_view)> ownLog);

    /// Serves until a signal ends it. To be called once.
    http::Awaitable<void> run();

private:
    enum class Phase { Serving, Replacing, Ending };

    void handle(int signal);
    bool terminalHasGone() const;
    [[noreturn]] void endAtOnce(int signal);
    http::Awaitable<void> replace();
    http::Awaitable<void> end(std::chrono::steady_clock::duration patience);

    const boost::asio::any_io_executor executor;
    Service& service;
    Signals& signals;
    std::vector<basekit2::UniqueFd> sockets;
    const StartedAs startedAs;
    const std::function<void(std::string_view)> log;

    Phase phase = Phase::Serving;
    int endAsked = 0;                     // the signal; 0 for none
    std::mutex startingMutex;             // guards starting; no other lock is taken under it
    pid_t starting = 0;                   // the process that is to follow; 0 for none
    boost::asio::thread_pool handing{1};  // waits for the successor; goes first
};

}  // namespace kolvan::server
