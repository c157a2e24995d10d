#pragma once

#include "tests/support/AgentProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::test {

enum class ProxyKind { Nginx, HaProxy };

/// Texts of a configuration and what stands in their place; each must be there exactly once.
using Replacements = std::vector<std::pair<std::string, std::string>>;

/// A port of loopback that nobody listens on at the moment, and that nobody gets who does not ask
/// for it by number.
int unusedPort();

/// A running nginx or HAProxy with the configuration of packaging/proxy. What an operator has to
/// replace is replaced (addresses, certificate, paths), and nothing else unless it is asked for.
class ShippedProxy {
public:
    /// Starts the proxy on a port of the system's choice and waits until it takes connections.
    /// @param installation whose directory of temporary files the program is given
    /// @param changes what a test wants to be different in the configuration
    /// @throws std::runtime_error when it does not start
    ShippedProxy(ProxyKind kind, const AgentInstallation& installation, int serverPort,
                 const Replacements& changes = {});

    /// The address to configure an agent with, over HTTPS.
    std::string endpoint() const { return "https://localhost:" + std::to_string(port); }

    /// One line for each request that has ended, the protocol's version in it.
    std::string log() const;

private:
    void startNginx(AgentLaunch launch, int serverPort, const Replacements& changes);
    void startHaProxy(AgentLaunch launch, int serverPort, const Replacements& changes);

    const ProxyKind kind;
    const TemporaryDirectory place;
    const int port;
    std::unique_ptr<AgentProcess> process;
};

}  // namespace kolvan::test
