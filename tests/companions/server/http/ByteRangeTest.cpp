#include "companions/server/http/ByteRange.h"

#include <gtest/gtest.h>

namespace kolvan::server::http {
namespace {

TEST(ByteRangeTest, FirstAndLastByteCount) {
    EXPECT_EQ((ByteRange{2, 3}), parseRange("bytes=2-4", 10));
    EXPECT_EQ((ByteRange{0, 1}), parseRange("bytes=0-0", 10));
}

TEST(ByteRangeTest, OpenEndIsTheFilesEnd) {
    EXPECT_EQ((ByteRange{4, 6}), parseRange("bytes=4-", 10));
    EXPECT_EQ((ByteRange{4, 6}), parseRange("bytes=4-99", 10));
    EXPECT_EQ((ByteRange{4, 6}), parseRange("bytes=4-18446744073709551615", 10));
}

TEST(ByteRangeTest, LastBytesAreCountedFromTheEnd) {
    EXPECT_EQ((ByteRange{7, 3}), parseRange("bytes=-3", 10));
    EXPECT_EQ((ByteRange{0, 10}), parseRange("bytes=-30", 10));
}

TEST(ByteRangeTest, NothingOfTheFileIsALengthOfNull) {
    EXPECT_EQ((ByteRange{10, 0}), parseRange("bytes=10-", 10));
    EXPECT_EQ((ByteRange{10, 0}), parseRange("bytes=-0", 10));
    EXPECT_EQ((ByteRange{0, 0}), parseRange("bytes=0-", 0));
}

TEST(ByteRangeTest, WhatIsNotUnderstoodIsNoRange) {
    for (const char* text :
         {"", "bytes", "bytes=", "bytes=-", "bytes=4-2", "bytes=a-b", "lines=1-2", "bytes=1-2,4-5",
          "bytes=+1-2", "bytes= 1-2", "bytes=99999999999999999999-"}) {
        EXPECT_FALSE(parseRange(text, 10)) << text;
    }
}

}  // namespace
}  // namespace kolvan::server::http
