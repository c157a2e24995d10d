#include "tests/soak/AgentCounts.h"
#include "tests/soak/Moods.h"
#include "tests/soak/RecordChecker.h"
#include "tests/soak/SoakScene.h"
#include "tests/soak/Workloads.h"
#include "tests/support/Gate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace kolvan::test::soak {

namespace {

constexpr std::uint64_t kProducers = 6;
constexpr std::uint64_t kChannelCount = 3;

// A large amount may take longer than one wait may: it is given up when nothing comes any more.
bool waitForEnds(const ProfilingServer& server, std::size_t operations) {
    std::size_t seen = 0;
    bool ended = false;
    const auto hasMoved = [&](const ServerRecords& records) {
        const std::size_t arrived = records.transcript.size() - records.count("commands:get");
        const bool moved = arrived > seen;
        seen = arrived;
        ended = records.count("collector:finish") == operations;
        return moved;
    };
    while (!ended && server.waitUntil(hasMoved, kDeadline)) {
    }
    return ended;
}

}  // namespace

void proveIntegrity(std::uint64_t bytes, std::uint64_t seed) {
    RecordChecker checker;
    Moods moods(seed);
    SceneSettings settings;
    settings.server.keepOutput = false;
    settings.server.observer.onOutput = [&](const OutputChunk& chunk) { checker.add(chunk); };
    AgentScene scene(settings);
    installProducer(scene);
    scene.server().answerWith(std::ref(moods));
    AgentProcess agent(launchWithoutLog(scene));
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    std::vector<AgentMessage> commands;
    for (std::uint64_t i = 0; i < kProducers; ++i) {
        const std::string id = "producer-" + std::to_string(i);
        checker.expect(id, seed + i);
        commands.push_back(
            messages::execute(id, "produce " + std::to_string(seed + i) + " " +
                                      std::to_string(bytes / kProducers / kChannelCount)));
    }
    scene.server().send(commands);
    ASSERT_TRUE(waitForEnds(scene.server(), commands.size()));

    for (const AgentMessage& command : commands) {
        EXPECT_EQ("code 0", scene.outcome(command.parameter("id")));
    }
    EXPECT_THAT(checker.problems(), testing::IsEmpty());
    EXPECT_GE(checker.bytes(), bytes / kProducers / kChannelCount * kProducers * kChannelCount);
    Table table("Integrity: " + std::to_string(bytes >> 20U) + " MiB, seed " + std::to_string(seed),
                withCounts({"producers", "bytes arrived", "messages"}));
    table.add({std::to_string(kProducers), std::to_string(checker.bytes()),
               std::to_string(scene.server().transcript().size())},
              idleCounts(scene, agent));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    // The messages themselves are too large to be kept and looked at again.
    EXPECT_THAT(scene.server().protocolErrors(), testing::IsEmpty());
    EXPECT_THAT(leftChildren(), testing::IsEmpty());
}

}  // namespace kolvan::test::soak
