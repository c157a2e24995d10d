#include "companions/server/protocol/AgentMessage.h"

#include <gtest/gtest.h>

namespace kolvan::server::protocol {
namespace {

TEST(AgentMessageTest, ReplyIsAListOfMessages) {
    EXPECT_EQ(
        R"({"messages":[{"messageType":"connected","messageParameters":{}},)"
        R"({"messageType":"collector:execute","messageParameters":{"args":"a \"b\"","id":"1"}}]})",
        replyJson({messages::connected(), messages::execute("1", "a \"b\"")}));
}

TEST(AgentMessageTest, ReplyMayBeEmpty) {
    EXPECT_EQ(R"({"messages":[]})", replyJson({}));
}

TEST(AgentMessageTest, BuildersUseTheProtocolsNames) {
    EXPECT_EQ((AgentMessage{"collector:collection:start",
                            {{"id", "1"}, {"options", "-r\nx"}, {"traceUploadDirectory", "d"}}}),
              messages::startCollection("1", "-r\nx", "d"));
    EXPECT_EQ((AgentMessage{"collector:collection:command", {{"id", "1"}, {"command", "stop"}}}),
              messages::collectionCommand("1", "stop"));
    EXPECT_EQ((AgentMessage{"collector:operations:cancel", {}}), messages::cancel());
    EXPECT_EQ((AgentMessage{"stop", {}}), messages::stop());
}

TEST(AgentMessageTest, MissingParameterReadsAsEmpty) {
    EXPECT_EQ("", messages::stop().parameter("id"));
    EXPECT_EQ("1", messages::execute("1", "").parameter("id"));
}

}  // namespace
}  // namespace kolvan::server::protocol
