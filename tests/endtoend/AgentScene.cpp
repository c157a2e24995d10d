#include "tests/endtoend/AgentScene.h"

#include "tests/endtoend/TranscriptGrammar.h"

#include <algorithm>
#include <utility>

namespace kolvan::test {

namespace fs = std::filesystem;

namespace {

void installCollector(const fs::path& target) {
    const TemporaryDirectory staging;
    package::make(staging.entry("collector.tar"), {});
    package::unpack(staging.entry("collector.tar"), target);
}

}  // namespace

AgentScene::AgentScene(const SceneSettings& settings)
    : installation(settings.directoryName), agentSettings(settings.agent) {
    const TemporaryDirectory& place = installation.surroundings();
    ServerSettings server = settings.server;
    server.accessToken = agentSettings.accessToken;
    server.packageDirectory = place.path() / "packages";
    server.uploadDirectory = place.path() / "uploads";
    fs::create_directories(server.packageDirectory);
    profilingServer = std::make_unique<ProfilingServer>(std::move(server));
    agentSettings.serverEndpoint = profilingServer->endpoint();
    if (settings.throughRelay) {
        faultyRelay = std::make_unique<FaultyRelay>(profilingServer->port());
        agentSettings.serverEndpoint = faultyRelay->endpoint();
    }
    if (settings.installed) {
        installCollector(installation.target());
        agentSettings.buildVersion = "1";
    }
    installation.configure(agentSettings.text());
}

void AgentScene::offer(const std::string& archiveName, const package::Content& content) const {
    package::make(installation.surroundings().path() / "packages" / archiveName, content);
}

std::string AgentScene::run(const AgentMessage& command) {
    server().send(command);
    return outcome(command.parameter("id"));
}

std::string AgentScene::outcome(const std::string& id) {
    const std::optional<OperationResult> result = server().waitForFinish(id);
    if (!result) {
        return "not finished";
    }
    if (result->errorMessage) {
        return "error: " + *result->errorMessage;
    }
    return "code " + std::to_string(result->code.value_or(-1000));
}

std::string AgentScene::output(const std::string& id) {
    return server().output(id, Channel::Stdout);
}

std::string AgentScene::errors(const std::string& id) {
    return server().output(id, Channel::Stderr);
}

std::string AgentScene::feedback(const std::string& id) {
    return server().output(id, Channel::Feedback);
}

std::string AgentScene::stop(AgentProcess& agent) {
    server().send(messages::stop());
    return agent.waitForEnd();
}

std::vector<std::string> AgentScene::problems() {
    std::vector<std::string> found =
        grammarErrors(server().transcript(), agentSettings.accessToken);
    for (const std::string& error : server().protocolErrors()) {
        found.push_back("the server says: " + error);
    }
    for (const std::string& child : leftChildren()) {
        found.push_back("a process was left: " + child);
    }
    for (const fs::path& entry : resultDirectories()) {
        if (!hasForm(entry.filename(), "xxxx-xxxx-xxxx-xxxx")) {
            found.push_back("a temporary file was left: " + entry.string());
        }
    }
    return found;
}

std::vector<std::string> AgentScene::messageTypes() {
    std::vector<std::string> types;
    for (const ReceivedMessage& received : server().transcript()) {
        if (received.message.type != "commands:get") {
            types.push_back(received.message.type);
        }
    }
    return types;
}

std::vector<fs::path> AgentScene::resultDirectories() const {
    std::vector<fs::path> directories;
    for (const fs::directory_entry& entry : fs::directory_iterator(installation.temporaryFiles())) {
        directories.push_back(entry.path());
    }
    std::sort(directories.begin(), directories.end());
    return directories;
}

std::unique_ptr<Leash> AgentScene::makeLeash(const std::string& name) const {
    return std::make_unique<Leash>(installation.surroundings().entry(name));
}

void makeCertificate(const fs::path& directory) {
    runTool({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "2", "-subj", "/CN=localhost", "-keyout", directory / "key.pem",
             "-out", directory / "certificate.pem"});
}

}  // namespace kolvan::test
