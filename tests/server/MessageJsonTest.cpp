#include "server/MessageJson.h"

#include "tests/server/JsonCases.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace cagnt1 {

namespace {

using kolvan::test::EscapedText;
using kolvan::test::escapedTexts;
using kolvan::test::kExtremeDepth;
using kolvan::test::kGreatDepth;
using kolvan::test::nestedArrays;
using kolvan::test::withNul;

using Parameters = std::unordered_map<std::string, std::string>;

constexpr char kValidBatch[] = R"({"messages":[{"messageType":"stop"}]})";

std::vector<std::string> typesOf(const std::vector<Message>& messages) {
    std::vector<std::string> types;
    for (const Message& message : messages) {
        types.push_back(message.type);
    }
    return types;
}

std::string batchOf(const std::string& element) {
    return R"({"messages":[)" + element + "]}";
}

Parameters readParameters(const std::string& parametersJson) {
    const auto messages = messagesFromJson(
        batchOf(R"({"messageType":"x","messageParameters":)" + parametersJson + "}"));
    if (messages.size() != 1) {
        ADD_FAILURE() << messages.size() << " messages";
        return {};
    }
    return messages.front().parameters;
}

TEST(MessageTest, HoldsTypeThenParameters) {
    const Message message{"connect", {{"a", "1"}}};

    EXPECT_EQ("connect", message.type);
    EXPECT_EQ((Parameters{{"a", "1"}}), message.parameters);
}

TEST(MessageTest, ParameterIsLookedUpByItsWholeName) {
    const Message message{"x", {{"id", "7"}, {"empty", ""}}};

    EXPECT_EQ("7", message.parameter("id"));
    EXPECT_EQ("7", message.parameter("id", "default"));
    EXPECT_EQ("", message.parameter("empty", "default"));
}

TEST(MessageTest, MissingParameterHasTheDefaultValue) {
    const Message message{"x", {{"id", "7"}}};

    EXPECT_EQ("", message.parameter("Id"));
    EXPECT_EQ("none", message.parameter("i", "none"));
}

TEST(MessageTest, ErrorMessageCarriesItsTextAsTheOnlyParameter) {
    const Message message = makeErrorMessage("boom");

    EXPECT_EQ("error", message.type);
    EXPECT_EQ((Parameters{{"errorMessage", "boom"}}), message.parameters);
    EXPECT_EQ(R"({"messageType":"error","messageParameters":{"errorMessage":"boom"}})",
              messageToJson(message));
}

TEST(MessageJsonTest, MessageIsWrittenCompactTypeFirst) {
    EXPECT_EQ(R"({"messageType":"connect","messageParameters":{"agentUuid":"1-2"}})",
              messageToJson({"connect", {{"agentUuid", "1-2"}}}));
}

/// The text of a message with open parameters, once the values have been put between its pieces.
std::string filledIn(const std::vector<std::string>& pieces,
                     const std::vector<std::string>& values) {
    std::string text;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        text += (i > 0 ? values.at(i - 1) : "") + pieces[i];
    }
    return text;
}

TEST(MessageJsonTest, OpenParametersFollowTheKnownOnesInTheirOrder) {
    const auto pieces = messageToJsonAround({"x", {{"id", "7"}}}, {"b", "a"});

    EXPECT_EQ((std::vector<std::string>{R"({"messageType":"x","messageParameters":{"id":"7","b":")",
                                        R"(","a":")", R"("}})"}),
              pieces);
}

TEST(MessageJsonTest, OpenParametersMayBeTheOnlyOnes) {
    EXPECT_EQ(
        (std::vector<std::string>{R"({"messageType":"stop","messageParameters":{"a":")", R"("}})"}),
        messageToJsonAround({"stop", {}}, {"a"}));
}

TEST(MessageJsonTest, WithoutOpenParametersThereIsOnePieceTheWholeMessage) {
    const Message message{"x", {{"id", "7"}, {"k", "v"}}};

    EXPECT_EQ((std::vector<std::string>{messageToJson(message)}), messageToJsonAround(message, {}));
}

TEST(MessageJsonTest, OpenParameterReplacesTheKnownOneOfItsName) {
    EXPECT_EQ(R"({"messageType":"x","messageParameters":{"k":"new"}})",
              filledIn(messageToJsonAround({"x", {{"k", "old"}}}, {"k"}), {"new"}));
}

TEST(MessageJsonTest, TextAroundOpenParametersIsEscapedAsEverywhere) {
    for (const EscapedText& byte : escapedTexts()) {
        const auto pieces =
            messageToJsonAround({byte.text, {{byte.text, byte.text}}}, {"a" + byte.text});

        EXPECT_EQ("{\"messageType\":\"" + byte.escaped + "\",\"messageParameters\":{\"" +
                      byte.escaped + "\":\"" + byte.escaped + "\",\"a" + byte.escaped +
                      "\":\"v\"}}",
                  filledIn(pieces, {"v"}));
    }
}

TEST(MessageJsonTest, NoParametersAreWrittenAsAnEmptyObject) {
    EXPECT_EQ(R"({"messageType":"stop","messageParameters":{}})", messageToJson({"stop", {}}));
}

TEST(MessageJsonTest, EmptyTextsAreWrittenAsEmptyStrings) {
    EXPECT_EQ(R"({"messageType":"","messageParameters":{"":""}})", messageToJson({"", {{"", ""}}}));
}

TEST(MessageJsonTest, ParametersAreWrittenInTheOrderOfTheMap) {
    Message message{"x", {}};
    for (int i = 0; i < 50; ++i) {
        message.parameters["name" + std::to_string(i)] = std::to_string(i);
    }
    std::string members;
    for (const auto& [name, value] : message.parameters) {
        members += (members.empty() ? "\"" : ",\"") + name + "\":\"" + value + "\"";
    }

    EXPECT_EQ(R"({"messageType":"x","messageParameters":{)" + members + "}}",
              messageToJson(message));
}

TEST(MessageJsonTest, EveryByteOfAValueIsEscapedOnlyWhereItMust) {
    for (const EscapedText& byte : escapedTexts()) {
        EXPECT_EQ(R"({"messageType":"x","messageParameters":{"k":"a)" + byte.escaped + "z\"}}",
                  messageToJson({"x", {{"k", "a" + byte.text + "z"}}}));
    }
}

TEST(MessageJsonTest, TypesAndNamesAreEscapedAsValuesAre) {
    for (const EscapedText& byte : escapedTexts()) {
        EXPECT_EQ("{\"messageType\":\"" + byte.escaped + "\",\"messageParameters\":{\"" +
                      byte.escaped + "\":\"v\"}}",
                  messageToJson({byte.text, {{byte.text, "v"}}}));
    }
}

TEST(MessageJsonTest, HexadecimalDigitsOfEscapesAreUpperCase) {
    EXPECT_EQ(R"({"messageType":"x","messageParameters":{"k":"\u0001\u001F\u000B"}})",
              messageToJson({"x", {{"k", "\x01\x1F\x0B"}}}));
}

TEST(MessageJsonTest, Utf8IsWrittenUnchanged) {
    const std::string text =
        "\x7F"
        "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80";

    EXPECT_EQ(R"({"messageType":"x","messageParameters":{"k":")" + text + "\"}}",
              messageToJson({"x", {{"k", text}}}));
}

TEST(MessageJsonTest, InvalidUtf8IsWrittenUnchanged) {
    const std::string text = "\xC3(\xFF\xFE\x80\xED\xA0\x80\xC0\xAF\xE2\x82";

    EXPECT_EQ(R"({"messageType":"x","messageParameters":{"k":")" + text + "\"}}",
              messageToJson({"x", {{"k", text}}}));
}

TEST(MessageJsonTest, TypeNamesAndValuesAreWrittenUpToTheirFirstNul) {
    const Message message{withNul("x\0type"), {{withNul("k\0name"), withNul("v\0value\0")}}};

    EXPECT_EQ(R"({"messageType":"x","messageParameters":{"k":"v"}})", messageToJson(message));
}

TEST(MessageJsonTest, TextsThatBeginWithNulAreWrittenEmpty) {
    const Message message{withNul("\0x"), {{withNul("\0k"), withNul("\0v")}}};

    EXPECT_EQ(R"({"messageType":"","messageParameters":{"":""}})", messageToJson(message));
}

TEST(MessageJsonTest, LongTextsAreWrittenWhole) {
    const std::string text(10'000'000, 'v');

    EXPECT_TRUE(R"({"messageType":"x","messageParameters":{"k":")" + text + "\"}}" ==
                messageToJson({"x", {{"k", text}}}));
}

TEST(MessageJsonTest, BatchIsWrittenInTheOrderOfTheVector) {
    EXPECT_EQ(R"({"messages":[{"messageType":"b","messageParameters":{}},)"
              R"({"messageType":"a","messageParameters":{"k":"v\n"}},)"
              R"({"messageType":"b","messageParameters":{}}]})",
              messagesToJson({{"b", {}}, {"a", {{"k", "v\n"}}}, {"b", {}}}));
}

TEST(MessageJsonTest, EmptyBatchIsWrittenAsAnEmptyArray) {
    EXPECT_EQ(R"({"messages":[]})", messagesToJson({}));
}

TEST(MessageJsonTest, BatchCutsTextsAtNulAsWell) {
    EXPECT_EQ(R"({"messages":[{"messageType":"x","messageParameters":{"k":"v"}}]})",
              messagesToJson({{withNul("x\0y"), {{withNul("k\0l"), withNul("v\0w")}}}}));
}

TEST(MessageJsonTest, WhatIsWrittenIsReadBack) {
    Message message{"every byte", {}};
    for (const EscapedText& byte : escapedTexts()) {
        message.parameters["name " + byte.text] = byte.text + " value";
    }

    const auto messages = messagesFromJson(messagesToJson({message, {"second", {}}}));

    ASSERT_EQ((std::vector<std::string>{"every byte", "second"}), typesOf(messages));
    EXPECT_EQ(message.parameters, messages[0].parameters);
    EXPECT_EQ(Parameters{}, messages[1].parameters);
}

TEST(MessageJsonTest, MessageWithoutParametersIsRead) {
    const auto messages = messagesFromJson(kValidBatch);

    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ("stop", messages[0].type);
    EXPECT_EQ(Parameters{}, messages[0].parameters);
}

TEST(MessageJsonTest, MessagesAreReadInTheirOrder) {
    EXPECT_EQ((std::vector<std::string>{"c", "a", "b", "a"}),
              typesOf(messagesFromJson(R"({"messages":[{"messageType":"c"},{"messageType":"a"},)"
                                       R"({"messageType":"b"},{"messageType":"a"}]})")));
}

TEST(MessageJsonTest, ValuesThatAreNoStringsAreReadAsEmptyTexts) {
    EXPECT_EQ((Parameters{{"a", "1"},
                          {"b", ""},
                          {"n", ""},
                          {"t", ""},
                          {"f", ""},
                          {"d", ""},
                          {"l", ""},
                          {"o", ""}}),
              readParameters(R"({"a":"1","b":2,"n":null,"t":true,"f":false,"d":-1.5e3,)"
                             R"("l":["x"],"o":{"a":"2","p":"3"}})"));
}

TEST(MessageJsonTest, OfSeveralParametersWithOneNameTheLastCounts) {
    EXPECT_EQ((Parameters{{"k", "2"}}), readParameters(R"({"k":"1","k":"2"})"));
    EXPECT_EQ((Parameters{{"k", "3"}, {"l", "x"}}),
              readParameters(R"({"k":"1","l":"x","k":"2","k":"3"})"));
    EXPECT_EQ((Parameters{{"k", ""}}), readParameters(R"({"k":"1","k":2})"));
    EXPECT_EQ((Parameters{{"k", "1"}}), readParameters(R"({"k":2,"k":"1"})"));
}

TEST(MessageJsonTest, NamesThatAreEqualUpToTheirNulAreOneParameter) {
    EXPECT_EQ((Parameters{{"k", "2"}}), readParameters(R"({"k":"1","k\u0000x":"2"})"));
    EXPECT_EQ((Parameters{{"k", "2"}}), readParameters(R"({"k\u0000x":"1","k":"2"})"));
}

TEST(MessageJsonTest, NamesDifferInTheirCase) {
    EXPECT_EQ((Parameters{{"k", "1"}, {"K", "2"}}), readParameters(R"({"k":"1","K":"2"})"));
}

TEST(MessageJsonTest, TypeNamesAndValuesAreReadUpToTheirFirstNul) {
    const auto messages = messagesFromJson(
        batchOf(R"({"messageType":"x\u0000y","messageParameters":{"k\u0000l":"v\u0000w\u0000"}})"));

    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ("x", messages[0].type);
    EXPECT_EQ((Parameters{{"k", "v"}}), messages[0].parameters);
}

TEST(MessageJsonTest, TextsThatBeginWithNulAreReadEmpty) {
    const auto messages = messagesFromJson(
        batchOf(R"({"messageType":"\u0000y","messageParameters":{"\u0000l":"\u0000w"}})"));

    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ("", messages[0].type);
    EXPECT_EQ((Parameters{{"", ""}}), messages[0].parameters);
}

TEST(MessageJsonTest, ReplyEndsAtItsFirstNul) {
    EXPECT_EQ((std::vector<std::string>{"stop"}),
              typesOf(messagesFromJson(kValidBatch + withNul("\0not JSON"))));
    EXPECT_EQ(std::vector<std::string>{},
              typesOf(messagesFromJson(withNul("{\"messages\":[{\"messageType\":\"a\0b\"}]}"))));
}

TEST(MessageJsonTest, EscapesAreRead) {
    EXPECT_EQ((Parameters{{"k", "\"\\/\b\f\n\r\tA\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80\x01"}}),
              readParameters(R"({"k":"\"\\\/\b\f\n\r\t\u0041\u00fc\u20AC\ud83d\uDE00\u0001"})"));
}

TEST(MessageJsonTest, InvalidUtf8IsReadUnchanged) {
    const std::string text = "\xC3(\xFF\xFE\x80\xED\xA0\x80\xC0\xAF\xE2\x82";

    EXPECT_EQ((Parameters{{text, text}}), readParameters("{\"" + text + "\":\"" + text + "\"}"));
}

TEST(MessageJsonTest, ParametersThatAreNoObjectAreNone) {
    for (const char* const parameters :
         {"null", "true", "1", "\"k\"", "[]", R"([{"k":"v"}])", "{}"}) {
        EXPECT_EQ(Parameters{}, readParameters(parameters)) << parameters;
    }
}

TEST(MessageJsonTest, OtherMembersOfAMessageAreIgnored) {
    const auto messages = messagesFromJson(
        batchOf(R"({"id":1,"messageParameters":{"k":"v"},"x":{"messageType":"y"},)"
                R"("messageType":"z","MessageType":"no","parameters":{"l":"w"}})"));

    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ("z", messages[0].type);
    EXPECT_EQ((Parameters{{"k", "v"}}), messages[0].parameters);
}

TEST(MessageJsonTest, OtherMembersOfTheReplyAreIgnored) {
    EXPECT_EQ((std::vector<std::string>{"stop"}),
              typesOf(messagesFromJson(
                  R"({"Messages":[{"messageType":"no"}],"messages":[{"messageType":"stop"}],)"
                  R"("status":{"messages":[]}})")));
}

TEST(MessageJsonTest, WhitespaceOfJsonIsSkipped) {
    EXPECT_EQ((std::vector<std::string>{"stop"}),
              typesOf(messagesFromJson(" \t\r\n{ \"messages\" :\t[\n{\r\"messageType\" : \"stop\" "
                                       "} ] } \t\r\n")));
}

TEST(MessageJsonTest, ReplyOfAnotherShapeHasNoMessages) {
    for (const char* const reply : {"",
                                    " ",
                                    "{}",
                                    "[]",
                                    "null",
                                    "true",
                                    "1",
                                    "\"messages\"",
                                    R"({"messages":[]})",
                                    R"({"messages":{}})",
                                    R"({"messages":null})",
                                    R"({"messages":"x"})",
                                    R"({"messages":1})",
                                    R"({"messages":{"messageType":"stop"}})",
                                    R"([{"messageType":"stop"}])",
                                    R"({"messageType":"stop"})",
                                    R"({"Messages":[{"messageType":"stop"}]})",
                                    R"({"messages\u0000":[{"messageType":"stop"}]})",
                                    R"({"reply":{"messages":[{"messageType":"stop"}]}})",
                                    R"([{"messages":[{"messageType":"stop"}]}])"}) {
        EXPECT_TRUE(messagesFromJson(reply).empty()) << reply;
    }
}

TEST(MessageJsonTest, TextThatIsNoJsonHasNoMessages) {
    ASSERT_EQ(1U, messagesFromJson(kValidBatch).size());

    for (const std::string& reply : kolvan::test::spoiledTexts(kValidBatch)) {
        EXPECT_TRUE(messagesFromJson(reply).empty()) << reply;
    }
}

TEST(MessageJsonTest, TextThatIsNoJsonIsNotSearchedForMissingTypes) {
    EXPECT_TRUE(messagesFromJson(R"({"messages":[{}]}x)").empty());
    EXPECT_TRUE(messagesFromJson("<html><body>502 Bad Gateway</body></html>").empty());
}

TEST(MessageJsonTest, MessageWithoutTypeIsALogicError) {
    EXPECT_THROW((void)messagesFromJson(R"({"messages":[{}]})"), std::logic_error);
    EXPECT_THROW((void)messagesFromJson(R"({"messages":[{"messageParameters":{"k":"v"}}]})"),
                 std::logic_error);
    EXPECT_THROW((void)messagesFromJson(R"({"messages":[{"MessageType":"stop"}]})"),
                 std::logic_error);
    EXPECT_THROW((void)messagesFromJson(R"({"messages":[{"messageType\u0000":"stop"}]})"),
                 std::logic_error);
}

TEST(MessageJsonTest, OneMessageWithoutTypeSpoilsTheWholeReply) {
    EXPECT_THROW(
        (void)messagesFromJson(R"({"messages":[{"messageType":"a"},{},{"messageType":"b"}]})"),
        std::logic_error);
}

TEST(MessageJsonTest, TypeThatIsNoStringIsALogicError) {
    for (const char* const type : {"null", "true", "1", "[]", "{}", R"(["stop"])"}) {
        EXPECT_THROW(
            (void)messagesFromJson(batchOf(R"({"messageType":)" + std::string(type) + "}")),
            std::logic_error)
            << type;
    }
}

TEST(MessageJsonTest, ElementThatIsNoObjectIsALogicError) {
    for (const char* const element :
         {"null", "true", "1", "\"stop\"", "[]", R"(["messageType"])"}) {
        EXPECT_THROW((void)messagesFromJson(batchOf(element)), std::logic_error) << element;
    }
}

TEST(MessageJsonTest, IgnoredMemberMayBeNestedWithoutLimit) {
    const auto messages = messagesFromJson(
        batchOf(R"({"x":)" + nestedArrays(kExtremeDepth) + R"(,"messageType":"stop"})"));

    EXPECT_EQ((std::vector<std::string>{"stop"}), typesOf(messages));
}

TEST(MessageJsonTest, ParameterMayBeNestedWithoutLimit) {
    EXPECT_EQ((Parameters{{"k", ""}, {"l", "v"}}),
              readParameters(R"({"k":)" + nestedArrays(kGreatDepth) + R"(,"l":"v"})"));
}

TEST(MessageJsonTest, ObjectsMayBeNestedWithoutLimit) {
    constexpr std::size_t kObjects = kGreatDepth;
    std::string value;
    for (std::size_t i = 0; i < kObjects; ++i) {
        value += R"({"":)";
    }
    value += "1" + std::string(kObjects, '}');

    EXPECT_EQ((Parameters{{"k", ""}}), readParameters(R"({"k":)" + value + "}"));
}

TEST(MessageJsonTest, NestedReplyOfAnotherShapeHasNoMessages) {
    EXPECT_TRUE(messagesFromJson(nestedArrays(kGreatDepth)).empty());
    EXPECT_TRUE(messagesFromJson(std::string(kGreatDepth, '[')).empty());
    EXPECT_TRUE(messagesFromJson(R"({"messages":)" + std::string(kGreatDepth, '[')).empty());
}

}  // namespace

}  // namespace cagnt1
