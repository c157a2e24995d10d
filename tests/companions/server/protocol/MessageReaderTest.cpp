#include "companions/server/protocol/MessageReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::protocol {
namespace {

using testing::HasSubstr;

struct Result {
    AgentMessage message;
    std::string output;
    std::string error;
    std::size_t outputs = 0;
};

Result read(std::string_view text, std::size_t pieceLength = 100'000) {
    Result result;
    MessageReader reader([&](const AgentMessage& known, std::string_view bytes) {
        EXPECT_NE("", known.type);
        result.output += bytes;
        ++result.outputs;
    });
    try {
        while (!text.empty()) {
            reader.put(text.substr(0, pieceLength));
            text.remove_prefix(std::min(pieceLength, text.size()));
        }
        result.message = reader.finish();
        EXPECT_EQ(result.output.size(), reader.outputSize());
    } catch (const ProtocolError& error) {
        result.error = error.what();
    }
    return result;
}

// "foobar", as an agent sends it.
constexpr const char* kOutput =
    R"({"messageType":"collector:stdout","messageParameters":{"accessToken":"t","agentUuid":"u",)"
    R"("id":"7","message":"Zm9vYmFy","size":"6"}})";

TEST(MessageReaderTest, TypeAndParameters) {
    const Result result = read(
        R"({"messageType":"connect","messageParameters":{"accessToken":"t","hostname":"h\u00e4"}})");

    EXPECT_EQ("", result.error);
    EXPECT_EQ((AgentMessage{"connect", {{"accessToken", "t"}, {"hostname", "h\xC3\xA4"}}}),
              result.message);
}

TEST(MessageReaderTest, OutputIsDecodedAndLeftOutOfTheMessage) {
    const Result result = read(kOutput);

    EXPECT_EQ("", result.error);
    EXPECT_EQ("foobar", result.output);
    EXPECT_EQ(
        (AgentMessage{"collector:stdout",
                      {{"accessToken", "t"}, {"agentUuid", "u"}, {"id", "7"}, {"size", "6"}}}),
        result.message);
}

TEST(MessageReaderTest, PiecesMayEndAnywhere) {
    for (std::size_t length = 1; length < std::string_view(kOutput).size(); ++length) {
        const Result result = read(kOutput, length);
        EXPECT_EQ("", result.error);
        EXPECT_EQ("foobar", result.output);
        EXPECT_EQ(read(kOutput).message, result.message);
    }
}

TEST(MessageReaderTest, MembersMayComeInAnyOrder) {
    const Result result =
        read(R"({"messageParameters":{"size":"6","message":"Zm9vYmFy","id":"7","accessToken":"t"},)"
             R"("messageType":"collector:stderr"})");

    EXPECT_EQ("", result.error);
    EXPECT_EQ("foobar", result.output);
    EXPECT_EQ("collector:stderr", result.message.type);
    EXPECT_EQ("7", result.message.parameter("id"));
}

TEST(MessageReaderTest, LongOutputIsHandedOnAsItComes) {
    std::string base64;
    std::string content;
    for (int group = 0; group < 300'000; ++group) {
        base64 += "Zm9v";
        content += "foo";
    }
    std::string largest;
    MessageReader reader([&](const AgentMessage& known, std::string_view bytes) {
        EXPECT_EQ("7", known.parameter("id"));
        EXPECT_EQ("t", known.parameter("accessToken"));
        EXPECT_GT(100'000U, bytes.size());
        largest += bytes;
    });

    reader.put(
        R"({"messageType":"collector:stdout","messageParameters":{"accessToken":"t","agentUuid":"u","id":"7",)"
        R"("message":")");
    reader.put(base64);
    EXPECT_LT(content.size() - 100'000, largest.size());
    reader.put(R"(","size":"900000"}})");
    (void)reader.finish();

    EXPECT_EQ(content, largest);
}

TEST(MessageReaderTest, LongOutputOfNobodyIsRefused) {
    std::string base64;
    while (base64.size() < 2 * MessageReader::kMostEarlyOutput) {
        base64 += "Zm9v";
    }

    EXPECT_THAT(read(R"({"messageParameters":{"message":")" + base64 + R"("}})").error,
                HasSubstr("before the message says whose it is"));
}

TEST(MessageReaderTest, ParameterOfAnotherTypeReadsAsEmpty) {
    const Result result = read(
        R"({"messageType":"x","messageParameters":{"a":1,"b":null,"c":{"id":"2"},"d":["e"],"id":"1"}})");

    EXPECT_EQ((AgentMessage{"x", {{"a", ""}, {"b", ""}, {"c", ""}, {"d", ""}, {"id", "1"}}}),
              result.message);
}

TEST(MessageReaderTest, LastOfTwoParametersCounts) {
    EXPECT_EQ("2", read(R"({"messageType":"x","messageParameters":{"id":"1","id":"2"}})")
                       .message.parameter("id"));
    EXPECT_EQ("", read(R"({"messageType":"x","messageParameters":{"id":"1","id":2}})")
                      .message.parameter("id"));
}

TEST(MessageReaderTest, StringsEndAtTheirFirstNul) {
    EXPECT_EQ(
        (AgentMessage{"x", {{"a", "b"}}}),
        read(R"({"messageType":"x\u0000y","messageParameters":{"a\u0000z":"b\u0000c\u0000"}})")
            .message);
}

TEST(MessageReaderTest, UnknownMembersArePassedOver) {
    EXPECT_EQ(
        (AgentMessage{"x", {{"id", "1"}}}),
        read(
            R"({"a":{"messageType":"y","messageParameters":{"id":"2"}},"messageType":"x","b":[{"id":"3"}],)"
            R"("messageParameters":{"id":"1"},"message":"no Base64","id":"4"})")
            .message);
}

TEST(MessageReaderTest, ParametersThatAreNoObjectAreNone) {
    EXPECT_EQ((AgentMessage{"x", {}}),
              read(R"({"messageType":"x","messageParameters":["id","1"]})").message);
    EXPECT_EQ((AgentMessage{"x", {}}), read(R"({"messageType":"x"})").message);
}

TEST(MessageReaderTest, MessageWithoutATypeIsRefused) {
    for (const char* text : {"{}", R"({"messageType":1})", "[]", R"(["messageType","x"])",
                             R"([{"messageType":"x"}])", "1", "\"messageType\""}) {
        EXPECT_NE("", read(text).error) << text;
    }
}

TEST(MessageReaderTest, TextThatIsCutOffIsRefused) {
    for (std::size_t length = 0; length < std::string_view(kOutput).size(); ++length) {
        EXPECT_NE("", read(std::string_view(kOutput).substr(0, length)).error) << length;
    }
}

TEST(MessageReaderTest, OutputThatIsNoBase64IsRefusedWithThePlace) {
    EXPECT_EQ("This is no Base64 at byte 4",
              read(R"({"messageType":"x","messageParameters":{"message":"Zm9v\nZm9v"}})").error);
    EXPECT_EQ("The Base64 ends too early at byte 2",
              read(R"({"messageType":"x","messageParameters":{"message":"Zm"}})").error);
}

TEST(MessageReaderTest, OtherSizeThanAnnouncedIsRefused) {
    EXPECT_THAT(
        read(R"({"messageType":"x","messageParameters":{"size":"5","message":"Zm9vYmFy"}})").error,
        HasSubstr("Not as much output"));
}

TEST(MessageReaderTest, OutputCannotBeSentElsewhereAfterwards) {
    const std::string begin =
        R"({"messageType":"x","messageParameters":{"accessToken":"t","agentUuid":"u","id":"7","message":"Zm9v",)";

    EXPECT_NE("", read(begin + R"("id":"8"}})").error);
    EXPECT_NE("", read(begin + R"("id":8}})").error);
    EXPECT_NE("", read(begin + R"("accessToken":"u"}})").error);
    EXPECT_NE("", read(begin + R"("agentUuid":"v"}})").error);
    EXPECT_NE("", read(begin + R"("message":"Zm9v"}})").error);
    EXPECT_NE("", read(begin + R"("a":"b"},"messageType":"y"})").error);
    EXPECT_EQ("", read(begin + R"("id":"7"},"messageType":"x"})").error);
}

TEST(MessageReaderTest, LengthsAreLimited) {
    const std::string begin = R"({"messageType":"x","messageParameters":{"a":")";
    const std::string longest(MessageReader::kLongestParameter, 'x');

    EXPECT_EQ("", read(begin + longest + "\"}}").error);
    EXPECT_NE("", read(begin + longest + "x\"}}").error);
    EXPECT_NE("", read(begin + longest + "\",\"b\":\"" + longest + "\"}}").error);
    EXPECT_NE("", read(begin + longest + "\",\"a\":\"" + longest + "\"}}").error);
}

}  // namespace
}  // namespace kolvan::server::protocol
