#pragma once

#include "companions/server/agents/AgentEndpoint.h"
#include "companions/server/base/Clock.h"
#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ScriptedCollector.h"

#include <memory>
#include <string>
#include <vector>

namespace kolvan::test {

/// A server for agents, whose store and files are in a directory of their own.
class AgentServerScene {
public:
    /// @param socket where to listen; one of its own if there is none
    explicit AgentServerScene(const std::filesystem::path& dataDirectory,
                              basekit2::UniqueFd socket = {});
    ~AgentServerScene();

    unsigned port() const { return scene.port(); }
    NetworkThread& network() { return scene.network(); }
    boost::asio::thread_pool& threads() { return scene.threads(); }
    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port()); }

    /// Puts an archive with the scripted collector among the packages, in place of the one that has
    /// its architecture.
    void addPackage(server::PackageArchitecture architecture, const std::string& name,
                    const package::Content& content = {});

    /// Blocks until the agent of this name has connected and its poll is held.
    server::Agent waitForAgent(const std::string& name);

    /// Blocks until the operation has ended.
    server::Operation waitForEnd(const server::OperationId& operation);

    /// Queues a run of the collector with these instructions.
    server::OperationId execute(const server::Agent& agent, const std::string& instructions);

    /// Queues a collection with these lines of instructions.
    server::Collection collect(const server::Agent& agent,
                               const std::vector<std::string>& instructions);

    /// Queues the message that cancels all that the agent runs.
    void cancelAll(const server::Agent& agent);

    /// Queues "stop".
    void stopAgent(const server::Agent& agent);

    std::string output(const server::OperationId& operation, server::OutputChannel channel) const;

    /// Lets go of the polls and stops serving. To be called once at most.
    /// @return how many connections had to be broken off
    std::size_t stop();

    const server::SystemClock clock;
    server::SqliteStore store;
    const server::OutputFiles outputs;
    const server::UploadedFiles uploads;
    server::Collections collections{store, outputs, uploads};

private:
    const std::filesystem::path packages;
    bool serving = true;
    ServerScene scene;
    server::RefusalLog refusals{store.audit(), clock};
    server::Tokens tokens{store, clock, refusals};
    server::agents::AgentService service{store, tokens, outputs};
    std::unique_ptr<server::agents::HeldPolls> polls;
    std::unique_ptr<server::agents::AgentEndpoint> agents;
};

}  // namespace kolvan::test
