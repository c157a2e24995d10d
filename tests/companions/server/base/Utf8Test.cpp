#include "companions/server/base/Utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server {
namespace {

TEST(Utf8Test, WhatIsNoCharacterIsReplacedByteByByte) {
    EXPECT_EQ("a\xEF\xBF\xBD\xEF\xBF\xBDz", validUtf8("a\xC0\xAFz"));              // overlong
    EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", validUtf8("\xED\xA0\x80"));  // a surrogate
    EXPECT_EQ("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80",
              validUtf8("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"));
}

TEST(Utf8Test, BeginningOfACharacterAtTheEndIsLeftOut) {
    const std::string face = "\xF0\x9F\x98\x80";
    EXPECT_EQ(0U, wholeUtf8Length(""));
    EXPECT_EQ(2U, wholeUtf8Length("ab"));
    for (const std::string& character :
         {std::string("\xC3\xA4"), std::string("\xE2\x82\xAC"), std::string("\xE0\xA0\x80"),
          std::string("\xED\x9F\xBF"), std::string("\xF4\x8F\xBF\xBF"), face}) {
        for (std::size_t length = 1; length < character.size(); ++length) {
            EXPECT_EQ(1U, wholeUtf8Length("a" + character.substr(0, length))) << character;
        }
        EXPECT_EQ(1 + character.size(), wholeUtf8Length("a" + character)) << character;
    }
}

TEST(Utf8Test, BytesThatNothingMakesACharacterOfStay) {
    for (const std::string& text :
         {std::string("a\xFF"), std::string("a\x80"), std::string("a\xC0"), std::string("a\xC1"),
          std::string("a\xE0\x80"), std::string("a\xED\xA0"), std::string("a\xF4\x90"),
          std::string("a\xF5"), std::string("a\xF0\x8F"), std::string("a\x80\x80\x80\x80")}) {
        EXPECT_EQ(text.size(), wholeUtf8Length(text)) << text;
    }
}

TEST(Utf8Test, CharactersAreCountedNotBytes) {
    EXPECT_EQ(0U, characterCount(""));
    EXPECT_EQ(4U, characterCount("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"));
}

}  // namespace
}  // namespace kolvan::server
