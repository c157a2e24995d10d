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

}  // namespace
}  // namespace kolvan::server
