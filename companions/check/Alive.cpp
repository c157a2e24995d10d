#include "companions/check/Alive.h"

#include "companions/check/ConfigurationFindings.h"
#include "companions/check/Endpoint.h"
#include "main/Startup.h"

#include <algorithm>
#include <thread>

namespace kolvan::check {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{100};

std::string secondsOf(std::chrono::milliseconds duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();
    return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

}  // namespace

AliveAnswer watchForLife(const WatchedProcess& agent, std::chrono::milliseconds patience) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + patience;
    const Sockets first = agent.sockets();
    do {
        std::this_thread::sleep_for(kBetweenLooks);
        const Sockets now = agent.sockets();
        // An agent that has lost its server opens no sockets, and the ones that it was given (a
        // log, for instance) stay the same. Where requests are answered at once this is the only
        // sign: a connection is gone before the system's long table of them is read to its line.
        if (!std::includes(first.begin(), first.end(), now.begin(), now.end())) {
            return {true, "connections", "It opens new connections."};
        }
        if (const auto children = agent.children(); !children.empty()) {
            return {true, "children",
                    "It has the child process " + std::to_string(children[0]) + "."};
        }
        if (now.empty()) {
            continue;
        }
        if (const auto connections = agent.connections(now); !connections.empty()) {
            return {true, "connection", "It holds a connection to " + connections[0] + "."};
        }
    } while (Clock::now() < end);
    return {false, "alone",
            "In " + secondsOf(patience) + " it had neither a connection nor a child process."};
}

std::string serverOf(const WatchedProcess& agent) {
    const std::string directory = cagnt1::installationDirectory(agent.programPath());
    const auto examined = examineConfiguration(cagnt1::configurationPath(directory));
    return examined.configuration ? withoutCredentials(examined.configuration->serverEndpoint)
                                  : std::string();
}

}  // namespace kolvan::check
