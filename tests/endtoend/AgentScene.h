#pragma once

#include "tests/endtoend/FaultyRelay.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ScriptedCollector.h"
#include "tests/support/standin/ProfilingServer.h"

#include <memory>
#include <string>
#include <vector>

namespace kolvan::test {

/// What a scene is to be like.
struct SceneSettings {
    std::string directoryName = "agent";  ///< of the installation
    AgentSettings agent;                  ///< the endpoint is filled in
    ServerSettings server;                ///< the directories are filled in
    bool installed = true;  ///< the collector is there already, of build 1, and build 1 is asked
                            ///< for: nothing is downloaded
    bool throughRelay = false;  ///< the agent reaches the server through the relay
};

/// An agent's surroundings: its installation, a server that has been told its token, the server's
/// directories and, where it is asked for, a relay in between.
class AgentScene {
public:
    explicit AgentScene(const SceneSettings& settings = {});

    AgentInstallation installation;

    ProfilingServer& server() { return *profilingServer; }
    FaultyRelay& relay() { return *faultyRelay; }

    /// Writes an archive that the server hands out.
    void offer(const std::string& archiveName, const package::Content& content) const;

    /// How to start the installed agent.
    AgentLaunch launch() const { return AgentLaunch(installation); }

    /// Sends a command and waits for the operation's end.
    /// @return "code 0", "error: <text>" or "not finished"
    std::string run(const AgentMessage& command);

    /// Waits for the end of an operation that was started.
    std::string outcome(const std::string& id);

    /// What has been written on a channel of an operation, decoded.
    std::string output(const std::string& id);
    std::string errors(const std::string& id);
    std::string feedback(const std::string& id);

    /// Asks the agent to stop and waits for its end; see `AgentProcess::waitForEnd`.
    std::string stop(AgentProcess& agent);

    /// Everything that is wrong after the agent's life: with the messages, with the requests, child
    /// processes that were left behind, and temporary files that are no result directories.
    std::vector<std::string> problems();

    /// The types of all messages in order, polls left out.
    std::vector<std::string> messageTypes();

    /// The directories of the collections that have been started, in the order of their names.
    std::vector<std::filesystem::path> resultDirectories() const;

    /// A new named pipe to hold collectors with.
    std::unique_ptr<Leash> makeLeash(const std::string& name = "leash") const;

private:
    AgentSettings agentSettings;
    std::unique_ptr<ProfilingServer> profilingServer;
    std::unique_ptr<FaultyRelay> faultyRelay;  // goes first: it uses the server's port
};

/// Makes a key and a certificate for "localhost" with the system's openssl: "key.pem" and
/// "certificate.pem" in the directory.
void makeCertificate(const std::filesystem::path& directory);

}  // namespace kolvan::test
