#include "tests/soak/SoakScene.h"

#include "tests/endtoend/TranscriptGrammar.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace kolvan::test::soak {

namespace fs = std::filesystem;

void installProducer(const AgentScene& scene) {
    fs::copy_file(KOLVAN_SOAK_PRODUCER,
                  scene.installation.target() / "collector" / "bin" / "kolvan-trcap",
                  fs::copy_options::overwrite_existing);
}

AgentLaunch launchWithoutLog(const AgentScene& scene) {
    const TemporaryDirectory& place = scene.installation.surroundings();
    AgentLaunch launch = scene.launch();
    launch.program = place.write("agent-without-log",
                                 "#!/bin/sh\nexec '" + launch.program.string() + "' >/dev/null\n");
    fs::permissions(launch.program, fs::perms::owner_all);
    return launch;
}

AgentCounts idleCounts(AgentScene& scene, const AgentProcess& agent) {
    AgentCounts counts;
    EXPECT_TRUE(scene.server().waitForHeldPolls());
    EXPECT_TRUE(lookUntil([&] {
        counts = countsOf(agent.pid());
        return counts.threads == idleThreads();
    })) << counts.threads
        << " threads";
    return counts;
}

std::vector<std::string> problemsOfAll(AgentScene& scene) {
    std::map<std::string, Transcript> agents;
    for (const ReceivedMessage& received : scene.server().transcript()) {
        agents[received.message.parameter("agentUuid")].push_back(received);
    }
    std::vector<std::string> found = scene.server().protocolErrors();
    for (const auto& [agent, transcript] : agents) {
        const std::vector<std::string> errors =
            grammarErrors(transcript, AgentSettings().accessToken);
        found.insert(found.end(), errors.begin(), errors.end());
    }
    const std::vector<std::string> children = leftChildren();
    found.insert(found.end(), children.begin(), children.end());
    return found;
}

}  // namespace kolvan::test::soak
