#include "companions/server/http/Patience.h"

#include <gtest/gtest.h>

#include <limits>

namespace kolvan::server::http {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(PatienceTest, SilenceUsesItUp) {
    Patience patience(seconds(10), 1000);

    patience.spend(seconds(4), 0);
    EXPECT_EQ(seconds(6), patience.left());
    patience.spend(seconds(7), 0);

    EXPECT_EQ(seconds(0), patience.left());
}

TEST(PatienceTest, BytesPayForWaitingAtTheRate) {
    Patience patience(seconds(10), 1000);

    patience.spend(seconds(4), 2000);

    EXPECT_EQ(seconds(8), patience.left());
}

TEST(PatienceTest, NothingIsSavedUp) {
    Patience patience(seconds(10), 1000);

    patience.spend(seconds(0), 1'000'000);
    EXPECT_EQ(seconds(10), patience.left());
    patience.spend(seconds(1), std::numeric_limits<std::size_t>::max());

    EXPECT_EQ(seconds(10), patience.left());
}

TEST(PatienceTest, ByteNowAndThenDoesNotHelpForEver) {
    Patience patience(seconds(10), 1000);
    int pieces = 0;

    while (patience.left() > milliseconds(900)) {
        patience.spend(milliseconds(900), 1);
        ++pieces;
        ASSERT_LT(pieces, 100);
    }

    EXPECT_EQ(11, pieces);
}

TEST(PatienceTest, SteadyFlowNeverEnds) {
    Patience patience(seconds(10), 1000);
    for (int piece = 0; piece < 100'000; ++piece) {
        patience.spend(seconds(9), 9000);
    }

    EXPECT_EQ(seconds(10), patience.left());
}

}  // namespace
}  // namespace kolvan::server::http
