#include "companions/server/protocol/Base64Groups.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::protocol {
namespace {

using Decoder = std::size_t (*)(std::string_view text, char* out) noexcept;

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

class Base64DecodingGroupsTest : public ::testing::TestWithParam<Decoder> {
protected:
    void SetUp() override {
        if (GetParam() == &decodeGroupsByShuffling && !canShuffle()) {
            GTEST_SKIP() << "This processor cannot.";
        }
    }

    // Texts and rooms are exactly as large as promised: a sanitizer sees whoever goes beyond.
    static std::string decoded(std::string_view text) {
        const std::vector<char> letters(text.begin(), text.end());
        std::vector<char> bytes(text.size() / 4 * 3);
        const std::size_t taken = GetParam()({letters.data(), letters.size()}, bytes.data());
        return {bytes.data(), taken / 4 * 3};
    }
};

TEST_P(Base64DecodingGroupsTest, EveryLetterStandsInEachPlace) {
    for (std::size_t place = 0; place < 32; ++place) {
        for (unsigned number = 0; number < 64; ++number) {
            std::string text(32, 'A');
            text[place] = kAlphabet[number];
            const unsigned group = number << (18 - 6 * (place % 4));
            std::string expected(24, '\0');
            expected[place / 4 * 3] = static_cast<char>(group >> 16U);
            expected[place / 4 * 3 + 1] = static_cast<char>(group >> 8U & 0xFFU);
            expected[place / 4 * 3 + 2] = static_cast<char>(group & 0xFFU);

            EXPECT_EQ(expected, decoded(text)) << place << " " << number;
        }
    }
}

TEST_P(Base64DecodingGroupsTest, EndsBeforeTheGroupOfAnyOtherCharacterInAnyPlace) {
    for (std::size_t place = 0; place < 32; ++place) {
        for (unsigned code = 0; code < 256; ++code) {
            std::string text(32, 'A');
            text[place] = static_cast<char>(code);
            const bool isLetter = kAlphabet.find(text[place]) != std::string_view::npos;

            EXPECT_EQ(isLetter ? 24 : place / 4 * 3, decoded(text).size()) << place << " " << code;
            EXPECT_EQ(isLetter, sixBitsOf(text[place]) < 64);
        }
    }
}

TEST_P(Base64DecodingGroupsTest, AnyNumberOfGroupsIsDecodedAndNothingTouchedBehindThem) {
    std::mt19937 random(7);
    for (std::size_t length = 0; length < 200; ++length) {
        std::string text(length, '?');
        for (char& letter : text) {
            letter = kAlphabet[random() % kAlphabet.size()];
        }
        std::string expected(length / 4 * 3, '?');
        EXPECT_EQ(length / 4 * 4, decodeGroupsByTable(text, expected.data()));

        EXPECT_EQ(expected, decoded(text)) << length;
    }
}

std::string nameOfWay(const ::testing::TestParamInfo<Decoder>& way) {
    constexpr std::array kNames = {"ByTable", "ByShuffling", "InTheFastestWay"};
    return kNames.at(way.index);
}

INSTANTIATE_TEST_SUITE_P(Decoding, Base64DecodingGroupsTest,
                         ::testing::Values(&decodeGroupsByTable, &decodeGroupsByShuffling,
                                           &decodeGroups),
                         nameOfWay);

}  // namespace
}  // namespace kolvan::server::protocol
