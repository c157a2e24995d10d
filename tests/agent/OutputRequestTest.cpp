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

std::string requestOf(const Message& message, const std::vector<std::string>& pieces) {
    const OutputFrame frame(message);
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

TEST(OutputRequestTest, IsTheMessageWithTextAndSize) {
    for (const std::size_t size : {0U, 1U, 2U, 3U, 9U, 10U, 99U, 100U, 65536U, 1000000U}) {
        const Message whole = messageIn(requestOf(kFrame, {std::string(size, 'k')}));

        EXPECT_EQ(kFrame.type, whole.type) << size;
        EXPECT_EQ(std::string(size, 'k'), kolvan::test::outputText(whole)) << size;
        Message expected = kFrame;
        expected.parameters["size"] = std::to_string(size);
        expected.parameters["message"] = whole.parameter("message");
        EXPECT_EQ(expected.parameters, whole.parameters) << size;
    }
}

TEST(OutputRequestTest, TextStandsBehindWhatIsKnownBeforeAndInFrontOfItsSize) {
    EXPECT_EQ(
        R"({"messageType":"collector:stdout","messageParameters":{"id":"7\n","message":"aGVsbG8=","size":"5"}})",
        requestOf({"collector:stdout", {{"id", "7\n"}}}, {"hello"}));
}

TEST(OutputRequestTest, MemoryOfAnEarlierRequestIsUsedAndItsTextIsNot) {
    const OutputFrame frame(kFrame);
    std::string room(10000, 'x');
    const char* const memory = room.data();

    OutputRequest request(frame, std::move(room));
    request.append("hello");
    const std::string text = std::move(request).complete();

    EXPECT_EQ(requestOf(kFrame, {"hello"}), text);
    EXPECT_EQ(memory, text.data());
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

TEST(OutputRequestTest, ParametersOfItsOwnTakeThePlaceOfTheFrames) {
    Message frame = kFrame;
    frame.parameters["size"] = "17";
    frame.parameters["message"] = "other";

    EXPECT_EQ(requestOf(kFrame, {"hello"}), requestOf(frame, {"hello"}));
}

TEST(OutputRequestTest, IsEmptyUntilOutputComes) {
    const OutputFrame frame(kFrame);
    OutputRequest request(frame);
    EXPECT_TRUE(request.empty());
    request.append("");
    EXPECT_TRUE(request.empty());
    request.append("x");
    EXPECT_FALSE(request.empty());
}

}  // namespace
}  // namespace cagnt1
