#include "companions/server/serve/Lifetime.h"

#include "companions/server/http/OnPool.h"
#include "companions/server/serve/ServiceManager.h"
#include "companions/server/serve/Successor.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>

#include <exception>
#include <utility>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

namespace kolvan::server {

namespace asio = boost::asio;

Lifetime::Lifetime(asio::any_io_executor anyExecutor, Service& ownService, Signals& ownSignals,
                   std::vector<basekit2::UniqueFd> listening, StartedAs start,
                   std::function<void(std::string_view)> ownLog)
    : executor(std::move(anyExecutor)),
      service(ownService),
      signals(ownSignals),
      sockets(std::move(listening)),
      startedAs(std::move(start)),
      log(std::move(ownLog)) {}

http::Awaitable<void> Lifetime::run() {
    while (const std::optional<int> signal = co_await signals.next()) {
        handle(*signal);
    }
}

void Lifetime::handle(int signal) {
    switch (phase) {
        case Phase::Serving:
            if (signal == SIGHUP && !terminalHasGone()) {
                phase = Phase::Replacing;
                asio::co_spawn(executor, replace(), asio::detached);
            } else {
                endAsked = signal;
                log("Stopping");
                tellStopping();
                asio::co_spawn(executor, end(kPatience), asio::detached);
            }
            return;
        case Phase::Replacing:
            if (signal == SIGHUP) {
                log("A restart is under way already");
            } else if (std::exchange(endAsked, signal) != 0) {
                endAtOnce(signal);
            } else {
                log("Stopping when the restart is over");
            }
            return;
        case Phase::Ending:
            if (signal == SIGHUP) {
                log("This process is ending, and does not restart");
            } else if (std::exchange(endAsked, signal) != 0) {
                endAtOnce(signal);
            } else {
                log("Stopping: transfers have another " + std::to_string(kPatience.count()) + " s");
                service.hurry(kPatience);
            }
            return;
    }
}

void Lifetime::endAtOnce(int signal) {
    {
        // Whoever asks twice wants no server, and not the next one either.
        const std::lock_guard lock(startingMutex);
        if (starting != 0) {
            (void)::kill(starting, signal);  // one that has gone has ended, too
        }
    }
    dieOf(signal);
}

bool Lifetime::terminalHasGone() const {
    pollfd input{STDIN_FILENO, 0, 0};  // a hang-up is always reported
    return startedAs.atTerminal && ::poll(&input, 1, 0) == 1;
}

http::Awaitable<void> Lifetime::replace() {
    log("Restarting");
    tellReloading();
    std::vector<int> descriptors;
    for (const basekit2::UniqueFd& socket : sockets) {
        descriptors.push_back(socket.get());
    }
    pid_t successor = 0;
    try {
        const auto start = [&] {
            return startSuccessor(startedAs.program, startedAs.arguments, descriptors,
                                  [this](pid_t process) {
                                      const std::lock_guard lock(startingMutex);
                                      starting = process;
                                  });
        };
        successor = co_await http::onPool(handing, start);
    } catch (const std::exception& error) {
        log(std::string("The server goes on as it is: ") + error.what());
    }
    if (successor == 0) {
        tellReady();
        phase = Phase::Serving;
        if (const int signal = std::exchange(endAsked, 0); signal != 0) {
            handle(signal);
        }
        co_return;
    }
    {
        const std::lock_guard lock(startingMutex);
        starting = 0;  // a server of its own from here on
    }
    if (endAsked != 0) {
        (void)::kill(successor, endAsked);  // one that has gone has ended, too
    } else {
        tellReplacedBy(successor);
    }
    log("Process " + std::to_string(successor) + " goes on; this one ends after its transfers");
    co_await end(endAsked != 0 ? std::chrono::steady_clock::duration(kPatience)
                               : kPatienceOfPredecessor);
}

http::Awaitable<void> Lifetime::end(std::chrono::steady_clock::duration patience) {
    phase = Phase::Ending;
    sockets.clear();  // or those who connect from now on would wait for this process to end
    const std::size_t broken = co_await service.stop(patience);
    if (broken != 0) {
        log("Connections that had to be broken off: " + std::to_string(broken));
    }
    signals.stop();
}

}  // namespace kolvan::server
