#include "companions/server/protocol/JsonScanner.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace kolvan::server::protocol {
namespace {

// Writes down what it is told: "{n:name t:text o}" and so on.
class Notes final : public JsonListener {
public:
    void beginObject() override { all += "{"; }
    void endObject() override { all += "}"; }
    void beginArray() override { all += "["; }
    void endArray() override { all += "]"; }
    void beginText(bool isName) override { all += isName ? "n:" : "t:"; }
    void text(std::string_view piece) override { all += piece; }
    void endText() override { all += ";"; }
    void other() override { all += "o"; }

    std::string all;
};

std::string scan(std::string_view text, std::size_t pieceLength = 1000) {
    Notes notes;
    JsonScanner scanner(notes);
    try {
        while (!text.empty()) {
            scanner.put(text.substr(0, pieceLength));
            text.remove_prefix(std::min(pieceLength, text.size()));
        }
        scanner.finish();
    } catch (const ProtocolError& error) {
        return "error " + std::to_string(error.place());
    }
    return notes.all;
}

TEST(JsonScannerTest, EverythingInItsOrder) {
    EXPECT_EQ("{n:a;t:b;n:c;[ot:d;{}[]oo]n:e;o}",
              scan(R"( { "a" : "b" , "c":[1,"d",{},[ ],true,null],"e":-0.5e+10 } )"));
}

TEST(JsonScannerTest, PiecesMayEndAnywhere) {
    const std::string text =
        R"({"a":"b\u00e4\ud83d\ude00\n","c":[1.25,"d",{},[],true,false,null],"e":-0}  )";
    const std::string whole = scan(text);
    EXPECT_EQ("{n:a;t:b\xC3\xA4\xF0\x9F\x98\x80\n;n:c;[ot:d;{}[]ooo]n:e;o}", whole);
    for (std::size_t length = 1; length < text.size(); ++length) {
        EXPECT_EQ(whole, scan(text, length)) << length;
    }
}

TEST(JsonScannerTest, AnyValueMayBeTheWhole) {
    EXPECT_EQ("t:a;", scan("\"a\""));
    EXPECT_EQ("o", scan("12"));
    EXPECT_EQ("o", scan("true"));
    EXPECT_EQ("[]", scan("[]"));
}

TEST(JsonScannerTest, EscapesAreDecoded) {
    EXPECT_EQ("t:\"\\/\b\f\n\r\t;", scan(R"("\"\\\/\b\f\n\r\t")"));
    EXPECT_EQ(std::string("t:A\0\x7F\xDF\xBF\xEF\xBF\xBF;", 11),
              scan(R"("\u0041\u0000\u007f\u07FF\uffff")"));
}

TEST(JsonScannerTest, BytesThatAreNoTextPass) {
    EXPECT_EQ("t:\xFF\xC0\x7F;", scan("\"\xFF\xC0\x7F\""));
}

TEST(JsonScannerTest, LongStringsArriveWhole) {
    std::string content;
    while (content.size() < 100'000) {
        content += std::to_string(content.size());
    }
    EXPECT_EQ("t:" + content + ";", scan('"' + content + '"', 70'000));
    EXPECT_EQ("t:" + content + "\n" + content + ";",
              scan('"' + content + "\\n" + content + '"', 333));
}

TEST(JsonScannerTest, WhatIsNoJsonIsAnErrorAtItsPlace) {
    for (const auto& [text, place] :
         std::initializer_list<std::pair<std::string, int>>{{"", 0},
                                                            {"  ", 2},
                                                            {"{", 1},
                                                            {"[1", 2},
                                                            {"[1,", 3},
                                                            {"\"a", 2},
                                                            {"tru", 3},
                                                            {"trux", 3},
                                                            {"nul1", 3},
                                                            {"{a:1}", 1},
                                                            {"{\"a\" 1}", 5},
                                                            {"{\"a\":}", 5},
                                                            {"{\"a\":1,}", 7},
                                                            {"[1,]", 3},
                                                            {"[1 2]", 3},
                                                            {"[1}", 2},
                                                            {"{\"a\":1]", 6},
                                                            {"]", 0},
                                                            {"1 2", 2},
                                                            {"{} x", 3},
                                                            {"01", 1},
                                                            {"-", 1},
                                                            {"1.", 2},
                                                            {"1.e5", 2},
                                                            {".5", 0},
                                                            {"+1", 0},
                                                            {"1e", 2},
                                                            {"1e+", 3},
                                                            {"1ex", 2},
                                                            {"\"\n\"", 1},
                                                            {"\"\\x\"", 2},
                                                            {"\"\\u12g4\"", 5},
                                                            {"'a'", 0},
                                                            {"NaN", 0},
                                                            {"/**/1", 0},
                                                            {"\xEF\xBB\xBF{}", 0},
                                                            {std::string("{}\0", 3), 2}}) {
        EXPECT_EQ("error " + std::to_string(place), scan(text)) << text;
        EXPECT_EQ("error " + std::to_string(place), scan(text, 1)) << text;
    }
}

TEST(JsonScannerTest, HalvesOfCharactersAreErrors) {
    for (const char* text : {R"("\ud83d")", R"("\ud83dx")", R"("\ud83d\n")", R"("\ude00")",
                             R"("\ud83d\ud83d")", R"("\ud83d\u0041")"}) {
        EXPECT_EQ("error", scan(text).substr(0, 5)) << text;
        EXPECT_EQ(scan(text), scan(text, 1)) << text;
    }
}

TEST(JsonScannerTest, DepthIsLimited) {
    const std::string open(JsonScanner::kDeepest, '[');
    const std::string close(JsonScanner::kDeepest, ']');

    EXPECT_EQ(open + close, scan(open + close));
    EXPECT_EQ("error " + std::to_string(JsonScanner::kDeepest), scan('[' + open + close + ']'));
}

}  // namespace
}  // namespace kolvan::server::protocol
