#include "companions/check/JsonOutline.h"

#include "companions/check/TextPlace.h"

#include <gtest/gtest.h>

namespace kolvan::check {
namespace {

// Every mistake as "line:column topic".
std::string mistakesIn(const std::string& text) {
    std::string mistakes;
    for (const JsonMistake& mistake : outlineOf(text).mistakes) {
        const Place place = placeInText("", text, mistake.offset);
        mistakes += std::to_string(place.line) + ":" + std::to_string(place.column) + " " +
                    mistake.topic + "\n";
    }
    return mistakes;
}

TEST(JsonOutlineTest, MembersHaveKeysKindsAndPlaces) {
    const std::string text = R"({"a": "x", "\"b\\": 1, "": {"c": [1, "y"]}, "d": null, "e": true})";

    const JsonOutline outline = outlineOf(text);

    ASSERT_EQ(5U, outline.members.size());
    EXPECT_EQ("a", outline.members[0].key);
    EXPECT_EQ(1U, outline.members[0].keyOffset);
    EXPECT_EQ(JsonKind::Text, outline.members[0].kind);
    EXPECT_EQ("x", outline.members[0].text);
    EXPECT_EQ("\"b\\", outline.members[1].key);
    EXPECT_EQ(text.find("\"\\\"b"), outline.members[1].keyOffset);
    EXPECT_EQ(JsonKind::Number, outline.members[1].kind);
    EXPECT_EQ(text.find("\"\":"), outline.members[2].keyOffset);
    EXPECT_EQ(JsonKind::Object, outline.members[2].kind);
    EXPECT_EQ("d", outline.members[3].key);
    EXPECT_EQ(JsonKind::Null, outline.members[3].kind);
    EXPECT_EQ(JsonKind::Boolean, outline.members[4].kind);
}

TEST(JsonOutlineTest, OtherValuesThanObjectsHaveNoMembers) {
    EXPECT_EQ(JsonKind::Array, outlineOf(R"([{"a": 1}])").kind);
    EXPECT_TRUE(outlineOf(R"([{"a": 1}])").members.empty());
    EXPECT_EQ(JsonKind::Number, outlineOf(" 1 ").kind);
}

TEST(JsonOutlineTest, StrictJsonHasNoMistakes) {
    EXPECT_EQ("", mistakesIn("{}"));
    EXPECT_EQ("", mistakesIn("{\"a\": \"//\"}"));
}

TEST(JsonOutlineTest, PlacesCountLinesAndCharacters) {
    EXPECT_EQ("3:8 broken-json\n", mistakesIn("{\n\"a\": 1,\n\"\xC3\xA9\": 1 x}"));
    // The byte-order mark is no character of the first line.
    EXPECT_EQ("1:1 byte-order-mark\n1:3 broken-json\n", mistakesIn("\xEF\xBB\xBF{ 1}"));
}

TEST(JsonOutlineTest, EachKindOfMistakeIsToldApart) {
    EXPECT_EQ("1:1 broken-json\n", mistakesIn(""));
    EXPECT_EQ("1:7 broken-json\n", mistakesIn("{\"a\":1"));
    EXPECT_EQ("1:7 broken-json\n", mistakesIn("{\"a\":1,}"));
    EXPECT_EQ("1:2 broken-json\n", mistakesIn("{'a':1}"));
    EXPECT_EQ("1:2 comment\n", mistakesIn("{#a\n}"));
    EXPECT_EQ("1:1 byte-order-mark\n", mistakesIn("\xEF\xBB\xBF{}"));
    EXPECT_EQ("1:1 encoding\n", mistakesIn(std::string("\xFF\xFE{\0}\0", 6)));
    EXPECT_EQ("1:3 nul\n", mistakesIn(std::string("{}\0{}", 5)));
}

TEST(JsonOutlineTest, CommentsAndByteOrderMarkHideNothing) {
    const JsonOutline outline = outlineOf("\xEF\xBB\xBF{ /* x */ \"a\": 1 // y\n, \"b\": 2}");

    EXPECT_EQ(2U, outline.mistakes.size());
    ASSERT_EQ(2U, outline.members.size());
    EXPECT_EQ("b", outline.members[1].key);
    EXPECT_EQ("1:3 comment\n2:10 broken-json\n", mistakesIn("{ // a\n\"b\": \"c\" 1}"));
}

TEST(JsonOutlineTest, TextThatIsNoUtf8IsToldAndRead) {
    const JsonOutline outline = outlineOf("{\"a\": \"\xE9\"}");

    ASSERT_EQ(1U, outline.mistakes.size());
    EXPECT_EQ("encoding", outline.mistakes[0].topic);
    EXPECT_EQ(Severity::Warning, outline.mistakes[0].severity);
    EXPECT_EQ(1U, outline.members.size());
}

TEST(JsonOutlineTest, NestingOfAnyDepthIsRead) {
    EXPECT_EQ(1U, outlineOf(std::string(10'000'000, '[')).mistakes.size());
}

}  // namespace
}  // namespace kolvan::check
