#include "companions/check/NearestWord.h"

#include <gtest/gtest.h>

namespace kolvan::check {
namespace {

const std::vector<std::string> kWords{"accessToken", "serverEndpoint", "x86Name", "x64Name"};

TEST(NearestWordTest, LetterLeftOutIsFound) {
    EXPECT_EQ("accessToken", nearestWord("acessToken", kWords));
}

TEST(NearestWordTest, LettersInTheWrongOrderAreFound) {
    EXPECT_EQ("serverEndpoint", nearestWord("serverEnpdoint", kWords));
}

TEST(NearestWordTest, CapitalsDoNotCount) {
    EXPECT_EQ("accessToken", nearestWord("ACCESSTOKEN", kWords));
}

TEST(NearestWordTest, NearestOfTwoSimilarWordsIsTaken) {
    EXPECT_EQ("x64Name", nearestWord("x64Nam", kWords));
}

TEST(NearestWordTest, WordThatHasLittleInCommonIsNotReplaced) {
    EXPECT_EQ("", nearestWord("proxy", kWords));
}

TEST(NearestWordTest, HugeWordIsNotCompared) {
    EXPECT_EQ("", nearestWord(std::string(100'000'000, 'a'), kWords));
}

}  // namespace
}  // namespace kolvan::check
