#pragma once

#include "tests/companions/server/serve/RunningServer.h"
#include "tests/support/AgentProcess.h"

#include <memory>
#include <string>

namespace kolvan::test {

/// A real agent that is told to use a running server, with a token of its own.
class ServedAgent {
public:
    /// Makes the token, and starts the agent.
    ServedAgent(RunningServer& server, const std::string& name);

    AgentProcess& process() { return *running; }

    /// The agent once more, after it has ended.
    void startAgain();

private:
    AgentInstallation installation;
    std::unique_ptr<AgentProcess> running;
};

/// Puts archives with the scripted collector where agents find their packages.
void addScriptedPackages(const RunningServer& server);

/// Puts archives with the real collector there.
void addRealPackages(const RunningServer& server, const std::string& collectorProgram);

}  // namespace kolvan::test
