#include "companions/profiler/machine/TextLayout.h"

#include <gtest/gtest.h>

namespace kolvan::test {

using profiler::leftAligned;
using profiler::rightAligned;
using profiler::wrapped;

TEST(TextLayoutTest, TextIsFilledUpByCharactersAndNeverCut) {
    EXPECT_EQ("ab  ", leftAligned("ab", 4));
    EXPECT_EQ("  ab", rightAligned("ab", 4));
    EXPECT_EQ("\xC3\xA4\xC3\xB6  ", leftAligned("\xC3\xA4\xC3\xB6", 4));
    EXPECT_EQ("abcdef", leftAligned("abcdef", 4));
    EXPECT_EQ("abcdef", rightAligned("abcdef", 4));
}

TEST(TextLayoutTest, LinesBreakAtBlanksUnderTheirBeginning) {
    EXPECT_EQ("- one two\n  three\n", wrapped("one two three", "- ", 10));
    EXPECT_EQ("- one two\n", wrapped("one two", "- ", 9));
    EXPECT_EQ("- one\n  two\n", wrapped("one two", "- ", 8));
}

TEST(TextLayoutTest, LongWordsStayWhole) {
    EXPECT_EQ("- a\n  bcdefghijklm\n  n\n", wrapped("a bcdefghijklm n", "- ", 8));
    EXPECT_EQ("- abcdefghijklm\n", wrapped("abcdefghijklm", "- ", 8));
}

TEST(TextLayoutTest, NothingIsALineOfItsBeginning) {
    EXPECT_EQ("- \n", wrapped("", "- ", 8));
    EXPECT_EQ("\n", wrapped("", "", 0));
}

}  // namespace kolvan::test
