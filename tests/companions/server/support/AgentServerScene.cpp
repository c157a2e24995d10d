#include "tests/companions/server/support/AgentServerScene.h"

#include "companions/server/http/ListeningSocket.h"
#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/store/PackageFiles.h"
#include "tests/support/TemporaryDirectory.h"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace kolvan::test {

namespace fs = std::filesystem;

using namespace kolvan::server;

namespace {

/// Some text as a JSON string; the tests' texts have nothing in them but line feeds to be escaped.
std::string quoted(std::string text) {
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2)) {
        text.replace(at, 1, "\\n");
    }
    return '"' + text + '"';
}

fs::path madeDirectory(const fs::path& directory) {
    fs::create_directories(directory);
    return directory;
}

}  // namespace

AgentServerScene::AgentServerScene(const fs::path& dataDirectory, basekit2::UniqueFd socket)
    : store(madeDirectory(dataDirectory) / "kolvan.db", clock),
      outputs(dataDirectory / "output"),
      uploads(dataDirectory / "uploads"),
      packages(madeDirectory(dataDirectory / "packages")) {
    // Longer than a test waits: no poll ends by its time instead of by what the test is about.
    polls = std::make_unique<agents::HeldPolls>(scene.network().executor(), std::chrono::hours(1));
    agents = std::make_unique<agents::AgentEndpoint>(
        agents::AgentSurroundings{store, service, collections, uploads, *polls, scene.threads(),
                                  packages, [](std::string_view /*line*/) {}});
    agents->addRoutes(scene.router);
    if (socket) {
        scene.startOn(std::move(socket));
    } else {
        scene.start();
    }
}

AgentServerScene::~AgentServerScene() {
    if (serving) {
        (void)stop();  // whoever wants to know has called it
    }
    scene.threads().join();
    scene.network().call([this] { polls.reset(); });
}

void AgentServerScene::addPackage(PackageArchitecture architecture, const std::string& name,
                                  const package::Content& content) {
    const TemporaryDirectory place;
    const fs::path archive = place.path() / name;
    package::make(archive, content);
    (void)server::addPackage(store.packages(), packages, architecture, archive);
}

Agent AgentServerScene::waitForAgent(const std::string& name) {
    std::optional<Agent> found;
    const bool came = lookUntil([&] {
        for (const Agent& agent : store.agents().list({}, {}).items) {
            if (agent.name == name &&
                scene.network().call([&] { return polls->table().holds(agent.id.text); })) {
                found = agent;
            }
        }
        return found.has_value();
    });
    if (!came) {
        throw std::runtime_error("the agent does not ask for commands");
    }
    return *found;
}

Operation AgentServerScene::waitForEnd(const OperationId& operation) {
    Operation found;
    const bool ended = lookUntil([&] {
        found = store.operations().find(operation).value();
        return found.ended.has_value();
    });
    if (!ended) {
        throw std::runtime_error("the operation does not end");
    }
    return found;
}

OperationId AgentServerScene::execute(const Agent& agent, const std::string& instructions) {
    NewOperation operation;
    operation.messageType = "collector:execute";
    operation.parameters = "{\"args\":" + quoted(instructions) + '}';
    return store.operations().enqueue(agent.id, operation).id;
}

Collection AgentServerScene::collect(const Agent& agent,
                                     const std::vector<std::string>& instructions) {
    std::string options = "-r\nresults";
    for (const std::string& instruction : instructions) {
        options += '\n' + instruction;
    }
    NewCollection collection;
    collection.agent = agent.id;
    collection.request.pid = 1;
    NewOperation start;
    start.kind = OperationKind::Collection;
    start.messageType = "collector:collection:start";
    start.parameters = "{\"options\":" + quoted(options) +
                       ",\"traceUploadDirectory\":" + quoted(collection.id.text + "/secret") + '}';
    return store.collections().create(collection, start);
}

void AgentServerScene::cancelAll(const Agent& agent) {
    NewOperation operation;
    operation.messageType = protocol::messages::cancel().type;
    store.operations().enqueue(agent.id, operation);
}

void AgentServerScene::stopAgent(const Agent& agent) {
    NewOperation operation;
    operation.kind = OperationKind::Stop;
    operation.messageType = "stop";
    store.operations().enqueue(agent.id, operation);
}

std::string AgentServerScene::output(const OperationId& operation, OutputChannel channel) const {
    std::string text(outputs.size(operation, channel), '\0');
    outputs.read(operation, channel, 0, text);
    return text;
}

std::size_t AgentServerScene::stop() {
    serving = false;
    scene.network().call([this] { polls->stop(); });
    return scene.stop();
}

}  // namespace kolvan::test
