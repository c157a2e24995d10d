#include "agent/Base64Groups.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace cagnt1 {
namespace {

using Encoder = char* (*)(std::string_view bytes, char* out) noexcept;

class Base64GroupsTest : public ::testing::TestWithParam<Encoder> {
protected:
    void SetUp() override {
        if (GetParam() == &encodeGroupsByShuffling && !canShuffle()) {
            GTEST_SKIP() << "This processor cannot.";
        }
    }

    static std::string encoded(std::string_view bytes) {
        std::string text(bytes.size() / 3 * 4, '?');
        EXPECT_EQ(text.data() + text.size(), GetParam()(bytes, text.data()));
        return text;
    }
};

// Numbers of six bits are put together here, and taken apart there.
TEST_P(Base64GroupsTest, EveryLetterStandsInEachPlace) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t place = 0; place < 16; ++place) {
        for (unsigned letter = 0; letter < 64; ++letter) {
            std::string expected(16, 'A');
            expected[place] = alphabet[letter];
            const unsigned group = letter << (18 - 6 * (place % 4));
            std::string bytes(18, '\0');  // more than the first step reads
            bytes[place / 4 * 3] = static_cast<char>(group >> 16U);
            bytes[place / 4 * 3 + 1] = static_cast<char>(group >> 8U & 0xFFU);
            bytes[place / 4 * 3 + 2] = static_cast<char>(group & 0xFFU);

            EXPECT_EQ(expected + "AAAAAAAA", encoded(bytes)) << place << " " << letter;
        }
    }
}

TEST_P(Base64GroupsTest, AnyNumberOfGroupsIsEncodedAndNothingReadBehindThem) {
    std::mt19937 random(7);
    for (std::size_t groups = 0; groups < 100; ++groups) {
        std::vector<char> bytes(groups * 3);  // exactly: a sanitizer sees whoever reads on
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        std::string expected(groups * 4, '?');
        encodeGroupsByTable({bytes.data(), bytes.size()}, expected.data());

        EXPECT_EQ(expected, encoded({bytes.data(), bytes.size()})) << groups;
    }
}

std::string nameOfWay(const ::testing::TestParamInfo<Encoder>& way) {
    constexpr std::array kNames = {"ByTable", "ByShuffling", "InTheFastestWay"};
    return kNames.at(way.index);
}

INSTANTIATE_TEST_SUITE_P(Encoding, Base64GroupsTest,
                         ::testing::Values(&encodeGroupsByTable, &encodeGroupsByShuffling,
                                           &encodeGroups),
                         nameOfWay);

}  // namespace
}  // namespace cagnt1
