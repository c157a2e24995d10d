#include "tests/companions/server/serve/ServedAgent.h"

#include "tests/support/ScriptedCollector.h"

#include <filesystem>

namespace kolvan::test {

namespace fs = std::filesystem;

ServedAgent::ServedAgent(RunningServer& server, const std::string& name) {
    AgentSettings settings;
    settings.accessToken = server.command({"agent-token", "add", name});
    settings.serverEndpoint = "http://127.0.0.1:" + std::to_string(server.port());
    installation.configure(settings.text());
    startAgain();
}

void ServedAgent::startAgain() {
    running.reset();
    AgentLaunch launch(installation);
    launch.environment["no_proxy"] = "*";
    running = std::make_unique<AgentProcess>(launch);
}

void addScriptedPackages(const RunningServer& server) {
    const TemporaryDirectory place;
    for (const std::string architecture : {"x86", "x64"}) {
        const std::string archive = place.entry("package-" + architecture + ".tar");
        package::make(archive, {});
        (void)server.command({"package", "add", architecture, archive});
    }
}

void addRealPackages(const RunningServer& server, const std::string& collectorProgram) {
    const TemporaryDirectory place;
    fs::create_directories(place.entry("collector/bin"));
    fs::create_symlink(collectorProgram, place.entry("collector/bin/kolvan-trcap"));
    for (const std::string architecture : {"x86", "x64"}) {
        const std::string archive = place.entry("package-" + architecture + ".tar");
        runTool({"tar", "--dereference", "-cf", archive, "-C", place.path(), "collector"});
        (void)server.command({"package", "add", architecture, archive});
    }
}

}  // namespace kolvan::test
