#pragma once

#include "companions/server/base/Sha256.h"
#include "tests/companions/server/support/AgentServerScene.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ScriptedCollector.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::agents {

/// A server, and beside it the agent as it is installed, with a token and with packages that hold
/// the scripted collector. Each case starts the agent itself.
class ServedAgentTest : public testing::Test {
protected:
    ServedAgentTest() {
        server.addPackage(PackageArchitecture::X86, settings.x86TargetPackageArchiveName);
        server.addPackage(PackageArchitecture::X64, settings.x64TargetPackageArchiveName);
        server.store.agents().addToken("build-7", false, sha256(settings.accessToken));
        settings.serverEndpoint = server.endpoint();
        configure();
    }

    /// Writes the agent's configuration anew, from `settings`.
    void configure() const { installation.configure(settings.text()); }

    Agent waitForAgent() { return server.waitForAgent("build-7"); }

    /// Blocks until the operation has ended. @return "code 3", or "error: " and its text
    std::string outcome(const OperationId& operation) {
        const Operation ended = server.waitForEnd(operation);
        return ended.exitCode ? "code " + std::to_string(*ended.exitCode)
                              : "error: " + ended.errorMessage;
    }

    bool waitForOutput(const OperationId& operation, const std::string& text) {
        return test::lookUntil(
            [&] { return server.output(operation, OutputChannel::Stdout) == text; });
    }

    test::TemporaryDirectory data;
    test::AgentInstallation installation;
    test::AgentServerScene server{data.path() / "server"};
    test::AgentSettings settings;
};

}  // namespace kolvan::server::agents
