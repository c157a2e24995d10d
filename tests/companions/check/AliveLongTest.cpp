#include "tests/companions/check/CheckerRun.h"
#include "tests/endtoend/AgentScene.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace kolvan::test {
namespace {

// Every connection that has ended leaves a line in the system's table for a minute, and the table
// takes longer to read than a request takes.
TEST(AliveLongTest, AgentIsAliveThroughTwentyThousandQuickPolls) {
    SceneSettings settings;
    settings.server.pollTimeout = std::chrono::milliseconds(0);
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    std::size_t looks = 0;

    while (scene.server().count("commands:get") < 20'000) {
        const CheckerAnswer answer =
            runChecker(checkerLaunch(scene.installation, {"--alive", std::to_string(agent.pid())}));
        ASSERT_EQ("exited with 0", answer.ending) << answer.output << answer.errors;
        ++looks;
    }

    RecordProperty("looks", std::to_string(looks));
    EXPECT_EQ("exited with 0", scene.stop(agent));
}

}  // namespace
}  // namespace kolvan::test
