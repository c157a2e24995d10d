#pragma once

#include "tests/endtoend/AgentScene.h"
#include "tests/proxy/ShippedProxy.h"

#include <optional>

namespace kolvan::test {

/// An installed agent that reaches its server through a proxy only.
struct ProxiedAgent {
    /// @param installed false: the agent has to download its packages
    /// @param serverPort where the proxy finds the server; without it, the scene's own server
    ProxiedAgent(ProxyKind kind, const Replacements& changes, bool installed,
                 std::optional<int> serverPort = {})
        : scene(sceneSettings(installed)) {
        proxy.emplace(kind, scene.installation, serverPort.value_or(scene.server().port()),
                      changes);
        AgentSettings settings = sceneSettings(installed).agent;
        settings.serverEndpoint = proxy->endpoint();
        settings.buildVersion = installed ? "1" : "";
        scene.installation.configure(settings.text());
    }

    AgentScene scene;
    std::optional<ShippedProxy> proxy;

private:
    static SceneSettings sceneSettings(bool installed) {
        SceneSettings settings;
        settings.installed = installed;
        // The proxy's certificate is the test's own; with this name set it is not verified.
        settings.agent.serverCertificateName = "proxy.pem";
        return settings;
    }
};

}  // namespace kolvan::test
