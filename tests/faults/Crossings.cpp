#include "tests/faults/Crossings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <thread>

namespace kolvan::test {

namespace {

// The table. A new row is a new pair under every limit.
const std::vector<Crossing> kCrossings{
    {"Held"},
    {"Command", CrowdEvent::Command},
    {"Cancel", CrowdEvent::Cancel},
    {"AcceptedAgain", CrowdEvent::Accept},
    {"Stop", CrowdEvent::Stop},
    {"Interrupt", CrowdEvent::Interrupt},
    {"LostPoll", CrowdEvent::LosePoll},
    {"SlowServer", CrowdEvent::Nothing, ServerMood::Slow},
    {"SlowServerCancel", CrowdEvent::Cancel, ServerMood::Slow},
    {"SlowServerStop", CrowdEvent::Stop, ServerMood::Slow},
};

constexpr const char* kReset = "Recv failure: Connection reset by peer";

// How long a slow server rests before each of its answers.
constexpr std::chrono::milliseconds kRest{2};

SceneSettings settingsOf(const Crossing& crossing) {
    SceneSettings settings;
    settings.throughRelay = crossing.event == CrowdEvent::LosePoll;
    return settings;
}

/// One crossing while it is under way.
class CrossedLife {
public:
    CrossedLife(const Crossing& crossing, int size)
        : crossing(crossing),
          crowded(crossing.limits, settingsOf(crossing)),
          leash(crowded.scene.makeLeash()),
          crowd("run", size, leash.get()) {}

    void live() {
        if (crossing.mood == ServerMood::Slow) {
            slowServerDown();
        }
        if (hasCollection()) {
            crowded.server().send(messages::startCollection("collection", "-r\nx\ncontrol", ""));
            ASSERT_TRUE(
                crowded.server().waitForOutput("collection", Channel::Feedback, "<ready/>"));
        }
        ASSERT_TRUE(crowded.deliver(crowd.commands()));
        ASSERT_TRUE(crowded.waitForFirst(crowd));

        happen();
        if (testing::Test::HasFatalFailure()) {
            return;
        }
        leash->release();

        ASSERT_TRUE(crowded.waitForEnds(crowd));
        crowded.audit(crowd, crossing.event == CrowdEvent::Cancel ? CrowdScene::Endings::Cancelled
                                                                  : CrowdScene::Endings::Own);
        end();
    }

private:
    bool hasCollection() const {
        return crossing.event == CrowdEvent::Command || crossing.event == CrowdEvent::Cancel ||
               crossing.event == CrowdEvent::Accept;
    }

    void slowServerDown() {
        const auto turn = std::make_shared<std::mutex>();
        crowded.server().answerWith(
            [turn](const AgentMessage& message) -> std::optional<std::vector<AgentMessage>> {
                if (message.parameters.contains("id")) {
                    const std::lock_guard lock(*turn);
                    std::this_thread::sleep_for(kRest);
                }
                return std::nullopt;
            });
    }

    void happen() {
        switch (crossing.event) {
            case CrowdEvent::Nothing:
                return;
            case CrowdEvent::Command:
                return passCommand();
            case CrowdEvent::Cancel:
                return cancel();
            case CrowdEvent::Stop:
                return crowded.server().send(messages::stop());
            case CrowdEvent::Accept:
                return acceptAgain();
            case CrowdEvent::Interrupt:
                return interrupt();
            case CrowdEvent::LosePoll:
                return losePoll();
        }
    }

    void acceptAgain() {
        ASSERT_TRUE(crowded.deliver({messages::connected()}));
        passCommand();
    }

    void interrupt() {
        crowded.agent().sendSignal(SIGINT);
        ASSERT_TRUE(crowded.agent().waitUntilDelivered(SIGINT));
    }

    void losePoll() {
        ASSERT_TRUE(crowded.server().waitForHeldPolls());
        crowded.scene.relay().treat([](const std::string& request) {
            return request.find("\"commands:get\"") == std::string::npos ? Treatment::Pass
                                                                         : Treatment::Reset;
        });
        crowded.server().releasePolls();
        ASSERT_TRUE(crowded.agent().waitForErrors(kReset));
    }

    void passCommand() {
        AgentScene& scene = crowded.scene;
        ASSERT_EQ("code 0", scene.run(messages::collectionCommand("status", "status")));
        EXPECT_EQ("passed: status\n", scene.output("status"));
        ASSERT_EQ("code 0", scene.run(messages::collectionCommand("stop", "stop")));
        EXPECT_EQ("code 0", scene.outcome("collection"));
        EXPECT_EQ("command: status\ncommand: stop\n", scene.output("collection"));
    }

    void cancel() {
        ASSERT_TRUE(crowded.deliver({messages::cancel()}));
        EXPECT_EQ(1U, crowded.server().count("collector:operations:cancelled"));
        EXPECT_EQ("code 0", crowded.scene.outcome("collection"));
        EXPECT_EQ("command: cancel\n", crowded.scene.output("collection"));
    }

    void end() {
        if (crossing.event == CrowdEvent::Stop || crossing.event == CrowdEvent::Interrupt) {
            crowded.auditEnd(crowded.agent().waitForEnd());
            return;
        }
        if (crossing.event == CrowdEvent::LosePoll) {
            endWithoutPolls();
            return;
        }
        crowded.auditIdleAgent();
        crowded.auditEnd(crowded.scene.stop(crowded.agent()));
    }

    // Without its connection an agent lives on and has nothing more to do.
    void endWithoutPolls() {
        AgentProcess& agent = crowded.agent();
        EXPECT_TRUE(lookUntil([&] { return agent.threads().size() < soak::idleThreads(); }));
        EXPECT_THAT(childrenOf(agent.pid()), testing::IsEmpty());
        agent.sendSignal(SIGTERM);
        EXPECT_EQ("killed by signal 15", agent.waitForEnd());
        EXPECT_EQ(kReset, agent.errors());
        EXPECT_THAT(crowded.scene.problems(), testing::IsEmpty());
    }

    const Crossing crossing;
    CrowdScene crowded;
    const std::unique_ptr<Leash> leash;
    const Crowd crowd;
};

}  // namespace

void PrintTo(const Crossing& crossing, std::ostream* stream) {
    *stream << crossing.name;
}

std::vector<Crossing> crossingsUnder(const std::vector<DescriptorLimits>& allLimits) {
    std::vector<Crossing> crossings;
    for (const DescriptorLimits& limits : allLimits) {
        for (const Crossing& row : kCrossings) {
            crossings.push_back({row.name + limits.name(), row.event, row.mood, limits});
        }
    }
    return crossings;
}

void expectSurvived(const Crossing& crossing, int size) {
    CrossedLife(crossing, size).live();
}

}  // namespace kolvan::test
