#pragma once

#include "tests/endtoend/AgentScene.h"
#include "tests/soak/AgentCounts.h"

namespace kolvan::test::soak {

/// Puts the producer (tests/soak/producer.cpp) in the place of the installed collector.
void installProducer(const AgentScene& scene);

/// How to start the scene's agent when its log would fill the memory: it goes to the null device.
AgentLaunch launchWithoutLog(const AgentScene& scene);

/// Blocks until the agent waits for commands and has ended all threads that worked, and counts what
/// it has then. It fails the test when the deadline passes before.
AgentCounts idleCounts(AgentScene& scene, const AgentProcess& agent);

/// Like `AgentScene::problems`, for a scene in which one agent after the other has lived.
std::vector<std::string> problemsOfAll(AgentScene& scene);

}  // namespace kolvan::test::soak
