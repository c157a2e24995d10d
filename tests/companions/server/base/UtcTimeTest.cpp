#include "companions/server/base/UtcTime.h"

#include <gtest/gtest.h>

namespace kolvan::server {
namespace {

using std::chrono::milliseconds;

TEST(UtcTimeTest, IsWrittenInUtcWithMilliseconds) {
    EXPECT_EQ("1970-01-01T00:00:00.000Z", toRfc3339(UtcTime(milliseconds(0))));
    EXPECT_EQ("2001-09-09T01:46:40.007Z", toRfc3339(UtcTime(milliseconds(1'000'000'000'007))));
    EXPECT_EQ("2024-02-29T23:59:59.999Z", toRfc3339(UtcTime(milliseconds(1'709'251'199'999))));
}

TEST(UtcTimeTest, BeforeTheEpochCountsFromMidnightToo) {
    EXPECT_EQ("1969-12-31T23:59:59.999Z", toRfc3339(UtcTime(milliseconds(-1))));
}

TEST(UtcTimeTest, ReadsWhatItWrites) {
    for (const char* text : {"1970-01-01T00:00:00.000Z", "2026-11-22T06:05:04.321Z",
                             "9999-12-31T23:59:59.999Z", "2024-02-29T12:00:00.000Z"}) {
        EXPECT_EQ(text, toRfc3339(fromRfc3339(text).value()));
    }
}

TEST(UtcTimeTest, ReadsOtherWaysToWriteAMoment) {
    const auto read = [](const char* text) { return toRfc3339(fromRfc3339(text).value()); };

    EXPECT_EQ("2026-11-22T06:05:04.000Z", read("2026-11-22t06:05:04z"));
    EXPECT_EQ("2026-11-22T06:05:04.500Z", read("2026-11-22 06:05:04.5Z"));
    EXPECT_EQ("2026-11-22T06:05:04.123Z", read("2026-11-22T06:05:04.123999Z"));
    EXPECT_EQ("2026-11-22T04:35:04.000Z", read("2026-11-22T06:05:04+01:30"));
    EXPECT_EQ("2026-11-23T01:05:04.000Z", read("2026-11-22T20:05:04-05:00"));
    EXPECT_EQ("2027-01-01T00:00:00.000Z", read("2026-12-31T23:59:60Z"));
}

TEST(UtcTimeTest, ReadsNothingElse) {
    for (const char* text :
         {"", "2026", "2026-11-22", "2026-11-22T06:05:04", "2026-11-22T06:05Z",
          "2026-02-30T00:00:00Z", "2026-13-01T00:00:00Z", "2026-00-01T00:00:00Z",
          "2026-11-22T24:00:00Z", "2026-11-22T06:05:04.Z", "2026-11-22T06:05:04Zx",
          "2026-11-22T06:05:04+0100", "26-11-22T06:05:04Z", "2026-11-2xT06:05:04Z"}) {
        EXPECT_FALSE(fromRfc3339(text)) << text;
    }
}

}  // namespace
}  // namespace kolvan::server
