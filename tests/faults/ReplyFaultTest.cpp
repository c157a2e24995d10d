#include "tests/endtoend/AgentScene.h"
#include "tests/support/ReplyServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <ostream>
#include <string>

namespace kolvan::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kWithoutType = R"({"messages":[{"messageParameters":{}}]})";

/// A reply that holds no messages, whatever it looks like.
struct Reply {
    std::string name;
    std::string text;
};

void PrintTo(const Reply& reply, std::ostream* stream) {
    *stream << reply.name;
}

std::string nested(const std::string& opening) {
    std::string text = R"({"messages":)";
    constexpr std::size_t kDepth = 1'000'000;
    text.reserve(text.size() + kDepth * opening.size());
    for (std::size_t depth = 0; depth < kDepth; ++depth) {
        text += opening;
    }
    return text;
}

const std::string kStop = replyJson({messages::stop()});

/// An agent, with the collector installed, of a server that answers what the rule says.
struct ReplyScene {
    explicit ReplyScene(ReplyServer::Rule rule) : server(std::move(rule)) {
        AgentSettings settings;
        settings.serverEndpoint = server.endpoint();
        settings.buildVersion = "1";
        const std::string archive = installation.surroundings().entry("collector.tar");
        package::make(archive, {});
        package::unpack(archive, installation.target());
        installation.configure(settings.text());
    }

    AgentInstallation installation;
    ReplyServer server;
};

class ReplyWithoutMessagesTest : public testing::TestWithParam<Reply> {};

TEST_P(ReplyWithoutMessagesTest, ToAPollIsFollowedByTheNextPoll) {
    ReplyScene scene([](const std::string& type, std::size_t number) -> std::optional<std::string> {
        if (type == "commands:get" && number <= 2) {
            return number == 1 ? GetParam().text : kStop;
        }
        return std::nullopt;
    });

    AgentProcess agent{AgentLaunch(scene.installation)};

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.server.types(),
                ElementsAre("connect", "commands:get", "commands:get", "disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST_P(ReplyWithoutMessagesTest, ToAnOperationsMessagesChangesNothing) {
    ReplyScene scene([](const std::string& type, std::size_t number) -> std::optional<std::string> {
        if (type == "commands:get" && number <= 2) {
            return number == 1 ? replyJson({messages::execute("run", "out x exit 5")}) : kStop;
        }
        if (type == "collector:stdout" || type == "collector:finish") {
            return GetParam().text;
        }
        return std::nullopt;
    });

    AgentProcess agent{AgentLaunch(scene.installation)};

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.server.types(), testing::UnorderedElementsAre(
                                          "connect", "commands:get", "commands:get",
                                          "collector:stdout", "collector:finish", "disconnect"));
    EXPECT_EQ("disconnect", scene.server.types().back());
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    ReplyFaultTest, ReplyWithoutMessagesTest,
    testing::Values(Reply{"Nothing", ""}, Reply{"Garbage", "\x01\x02 no JSON {{{"},
                    Reply{"ErrorPage", "<html><body>500</body></html>"},
                    Reply{"ByteOrderMark", "\xEF\xBB\xBF" + kStop},
                    Reply{"Nul", std::string("\0", 1) + kStop},
                    Reply{"InvalidUtf8", R"({"messages":[{"messageType":")"
                                         "\xFF\xC0\xAF"
                                         R"("}]})"},
                    Reply{"UnknownType", R"({"messages":[{"messageType":"dance"}]})"},
                    Reply{"OtherShape", R"([{"messageType":"stop"}])"},
                    Reply{"CutOff", kStop.substr(0, kStop.size() - 1)},
                    Reply{"NestedArrays", nested("[")}, Reply{"NestedObjects", nested(R"({"":)")}),
    [](const testing::TestParamInfo<Reply>& reply) { return reply.param.name; });

TEST(ReplyFaultTest, MessageWithoutTypeInAnAnswerToAPollEndsTheConnection) {
    ReplyScene scene([](const std::string& type, std::size_t) -> std::optional<std::string> {
        return type == "commands:get" ? std::optional(kWithoutType) : std::nullopt;
    });
    AgentProcess agent{AgentLaunch(scene.installation)};
    ASSERT_TRUE(scene.server.waitFor("commands:get"));

    // What the thread has met is told when the agent goes; an interrupt still says goodbye.
    agent.sendSignal(SIGINT);

    ASSERT_TRUE(scene.server.waitFor("disconnect"));
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_THAT(scene.server.types(), ElementsAre("connect", "commands:get", "disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_TRUE(waitUntilNoChildIsLeft());  // the installed build was just being asked for
}

TEST(ReplyFaultTest, MessageWithoutTypeInAnAnswerToAnEndIsToldAsItsError) {
    ReplyScene scene([](const std::string& type, std::size_t number) -> std::optional<std::string> {
        if (type == "commands:get" && number <= 2) {
            return number == 1 ? replyJson({messages::execute("run", "exit 5")}) : kStop;
        }
        return type == "collector:finish" && number == 1 ? std::optional(kWithoutType)
                                                         : std::nullopt;
    });

    AgentProcess agent{AgentLaunch(scene.installation)};

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.server.types(), testing::UnorderedElementsAre(
                                          "connect", "commands:get", "commands:get",
                                          "collector:finish", "collector:finish", "disconnect"));
    EXPECT_THAT(agent.output(), testing::HasSubstr(R"("errorMessage":"Message without a type")"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
