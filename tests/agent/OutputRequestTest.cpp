#include "agent/OutputRequest.h"

#include "server/MessageJson.h"
#include "tests/support/Messages.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace cagnt1 {
namespace {

const Message kFrame{"collector:stdout",
                     {{"id", "7"}, {"agentUuid", "uuid"}, {"accessToken", "token"}}};

std::string requestOf(const Message& frame, const std::vector<std::string>& pieces) {
    OutputRequest request(frame);
    for (const std::string& piece : pieces) {
        request.append(piece);
    }
    return std::move(request).complete();
}

/// The message in a request, which is read back as the only one of a batch.
Message messageIn(const std::string& request) {
    const std::vector<Message> messages = messagesFromJson(R"({"messages":[)" + request + "]}");
    return messages.size() == 1 ? messages.front() : Message();
}

TEST(OutputRequestTest, IsByteForByteTheMessageWithSizeAndText) {
    for (const std::size_t size : {0U, 1U, 2U, 3U, 9U, 10U, 99U, 100U, 65536U, 1000000U}) {
        const std::string request = requestOf(kFrame, {std::string(size, 'k')});

        const Message whole = messageIn(request);
        EXPECT_EQ(std::string(size, 'k'), kolvan::test::outputText(whole)) << size;
        Message expected = kFrame;
        expected.parameters["size"] = std::to_string(size);
        expected.parameters["message"] = whole.parameter("message");
        EXPECT_TRUE(messageToJson(expected) == request) << size;
    }
}

TEST(OutputRequestTest, PiecesAreOneText) {
    const std::string request =
        requestOf(kFrame, {"a", "", "bc", "defg", std::string(1, '\0'), "h"});

    const Message message = messageIn(request);
    EXPECT_EQ(std::string("abcdefg\0h", 9), kolvan::test::outputText(message));
    EXPECT_EQ("9", message.parameter("size"));
    EXPECT_EQ("collector:stdout", message.type);
    EXPECT_EQ("7", message.parameter("id"));
    EXPECT_EQ("uuid", message.parameter("agentUuid"));
    EXPECT_EQ("token", message.parameter("accessToken"));
}

TEST(OutputRequestTest, ParametersThatLookLikeTheTextDoNotTakeItsPlace) {
    const std::string trap = R"("message":"","size":"0)";
    for (const char* name : {"id", "accessToken", "messag", "a", "zz"}) {
        Message frame = kFrame;
        frame.parameters[name] = trap;

        const Message message = messageIn(requestOf(frame, {"hello"}));

        EXPECT_EQ("hello", kolvan::test::outputText(message)) << name;
        EXPECT_EQ("5", message.parameter("size")) << name;
        EXPECT_EQ(trap, message.parameter(name)) << name;
    }
}

TEST(OutputRequestTest, OrderOfTheParametersIsTheMapsWhicheverItIs) {
    // Names that come before, between and behind the two, in every order that the map makes.
    for (int extra = 0; extra < 40; ++extra) {
        Message frame{"collector:stderr", {}};
        for (int i = 0; i < extra; ++i) {
            frame.parameters.emplace("name" + std::to_string(i), "value");
        }

        const std::string request = requestOf(frame, {std::string(1234, 'k')});

        const Message message = messageIn(request);
        EXPECT_EQ(std::string(1234, 'k'), kolvan::test::outputText(message)) << extra;
        EXPECT_EQ("1234", message.parameter("size")) << extra;
        EXPECT_EQ(frame.parameters.size() + 2, message.parameters.size()) << extra;
    }
}

TEST(OutputRequestTest, IsEmptyUntilOutputComes) {
    OutputRequest request(kFrame);
    EXPECT_TRUE(request.empty());
    request.append("");
    EXPECT_TRUE(request.empty());
    request.append("x");
    EXPECT_FALSE(request.empty());
}

}  // namespace
}  // namespace cagnt1
