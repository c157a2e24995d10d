#include "agent/MakeRoom.h"

#include "tests/agent/LargeAllocations.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <string>

namespace cagnt1 {
namespace {

using kolvan::test::NoMemoryFrom;

constexpr std::size_t kMegabyte = std::size_t{1} << 20U;

TEST(MakeRoomTest, RoomThatIsThereIsUsed) {
    std::string text("beginning");
    text.reserve(100);
    const char* const place = text.data();

    makeRoom(text, 50);

    EXPECT_EQ(place, text.data());
    EXPECT_EQ("beginning", text);
}

TEST(MakeRoomTest, SmallTextDoublesItsRoom) {
    std::string text(1000, 'x');

    makeRoom(text, 1);

    EXPECT_LE(2000U, text.capacity());
    EXPECT_GT(3000U, text.capacity());
    EXPECT_EQ(std::string(1000, 'x'), text);
}

TEST(MakeRoomTest, LargeTextGetsFourTimesTheRoom) {
    std::string text(kMegabyte, 'x');

    makeRoom(text, kMegabyte);

    EXPECT_LE(8 * kMegabyte, text.capacity());
    EXPECT_EQ(std::string(kMegabyte, 'x'), text);
}

TEST(MakeRoomTest, WhereThatIsTooMuchItGetsWhatItNeeds) {
    std::string text(kMegabyte, 'x');
    {
        const NoMemoryFrom limit(4 * kMegabyte);

        makeRoom(text, kMegabyte);
    }

    EXPECT_LE(2 * kMegabyte, text.capacity());
    EXPECT_GT(4 * kMegabyte, text.capacity());
    EXPECT_EQ(std::string(kMegabyte, 'x'), text);
}

TEST(MakeRoomTest, WithoutMemoryNothingChanges) {
    std::string text(kMegabyte, 'x');
    {
        const NoMemoryFrom limit(kMegabyte);

        EXPECT_THROW(makeRoom(text, kMegabyte), std::bad_alloc);
    }

    EXPECT_EQ(std::string(kMegabyte, 'x'), text);
}

}  // namespace
}  // namespace cagnt1
