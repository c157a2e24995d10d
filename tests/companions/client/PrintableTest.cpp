#include "companions/client/Printable.h"

#include <gtest/gtest.h>

namespace kolvan::client {
namespace {

TEST(PrintableTest, TextStaysAsItIs) {
    EXPECT_EQ("f<int>() é 日本 😀", printable("f<int>() é 日本 😀"));
}

TEST(PrintableTest, WhatActsOnTerminalsIsReplaced) {
    EXPECT_EQ("?[31mred?", printable("\x1B[31mred\x7F"));
    EXPECT_EQ("a??b", printable("a\r\nb"));
    EXPECT_EQ("a?b", printable("a\xC2\x9B"
                               "b"));  // U+009B
    EXPECT_EQ("a?b?", printable("a\u202E"
                                "b\u2067"));  // directions
    EXPECT_EQ("\u00A0\u2028", printable("\u00A0\u2028"));
}

TEST(PrintableTest, WidthCountsCharacters) {
    EXPECT_EQ(0U, width(""));
    EXPECT_EQ(4U, width("aé日😀"));
}

}  // namespace
}  // namespace kolvan::client
