#include "companions/profiler/output/TextEscape.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::profiler {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TextEscapeTest, BytesThatAreNoUtf8AreReplaced) {
    EXPECT_EQ("a\n\xC3\xA4" + kReplacement + "b", validUtf8("a\n\xC3\xA4\xFF"
                                                            "b"));
    EXPECT_EQ("", validUtf8(""));
}

TEST(TextEscapeTest, ControlCharactersBecomeQuestionMarks) {
    EXPECT_EQ("?a?b?\xC3\xA4?\xC2\xA0" + kReplacement,
              printable("\x1B"
                        "a\n"
                        "b\x7F\xC3\xA4\xC2\x9B\xC2\xA0\x9B"));
}

TEST(TextEscapeTest, CutTextKeepsWholeCharactersAtBothEnds) {
    EXPECT_EQ("abcdef", cutInTheMiddle("abcdef", 6));
    EXPECT_EQ("a...f", cutInTheMiddle("abcdef", 5));
    EXPECT_EQ("a...", cutInTheMiddle("abcdef", 4));
    EXPECT_EQ("...", cutInTheMiddle("abcdef", 3));
    EXPECT_EQ("\xC3\xA4...\xC3\xB6",
              cutInTheMiddle("\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xB6\xC3\xB6\xC3\xB6", 5));
    EXPECT_EQ(kReplacement + "..." + kReplacement, cutInTheMiddle("\xFF\xFF\xFF\xFF\xFF\xFF", 5));
}

}  // namespace
}  // namespace kolvan::profiler
