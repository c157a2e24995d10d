#include "tests/faults/Crossings.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>

namespace kolvan::test {

namespace messages = kolvan::server::messages;

using kolvan::server::Channel;

namespace {

// The table. A new row is a new pair under every limit.
const std::vector<Crossing> kCrossings{
    {"Command", CrowdEvent::Command},
    {"Cancel", CrowdEvent::Cancel},
    {"Stop", CrowdEvent::Stop},
};

/// One crossing while it is under way.
class CrossedLife {
public:
    CrossedLife(const Crossing& crossing, int size)
        : crossing(crossing),
          crowded(crossing.limits),
          leash(crowded.scene.makeLeash()),
          crowd("run", size, leash.get()) {}

    void live() {
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
        crowded.audit(crowd, crossing.event == CrowdEvent::Cancel ? CrowdScene::Endings::Terminated
                                                                  : CrowdScene::Endings::Own);
        end();
    }

private:
    bool hasCollection() const {
        return crossing.event == CrowdEvent::Command || crossing.event == CrowdEvent::Cancel;
    }

    void happen() {
        switch (crossing.event) {
            case CrowdEvent::Command:
                return passCommand();
            case CrowdEvent::Cancel:
                return cancel();
            case CrowdEvent::Stop:
                return crowded.server().send(messages::stop());
        }
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
        if (crossing.event == CrowdEvent::Stop) {
            crowded.auditEnd(crowded.agent().waitForEnd());
            return;
        }
        crowded.auditIdleAgent();
        crowded.auditEnd(crowded.scene.stop(crowded.agent()));
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
            crossings.push_back({row.name + limits.name(), row.event, limits});
        }
    }
    return crossings;
}

void expectSurvived(const Crossing& crossing, int size) {
    CrossedLife(crossing, size).live();
}

}  // namespace kolvan::test
