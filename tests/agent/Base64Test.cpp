#include "agent/Base64.h"

#include "tests/support/Messages.h"

#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace cagnt1 {
namespace {

const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// The encoding as RFC 4648 explains it, one group of three bytes after the other.
std::string encodePlainly(std::string_view bytes) {
    std::string text;
    for (std::size_t start = 0; start < bytes.size(); start += 3) {
        const std::string_view group = bytes.substr(start, 3);
        unsigned int bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            bits = bits * 256 + (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text.push_back(i <= group.size() ? kAlphabet[bits >> 18U] : '=');
            bits = (bits << 6U) & 0xFFFFFFU;
        }
    }
    return text;
}

/// The encoding by Boost's iterators, which give the last bits but no padding.
std::string encodeByBoost(const std::string& bytes) {
    using namespace boost::archive::iterators;
    using Iterator = base64_from_binary<transform_width<std::string::const_iterator, 6, 8>>;
    std::string text(Iterator(bytes.begin()), Iterator(bytes.end()));
    text.append((3 - bytes.size() % 3) % 3, '=');
    return text;
}

/// The bytes encoded in pieces of this size.
std::string encodeInPieces(std::string_view bytes, std::size_t pieceSize) {
    Base64Encoder encoder;
    std::string text;
    for (std::size_t start = 0; start < bytes.size(); start += pieceSize) {
        encoder.append(text, bytes.substr(start, pieceSize));
    }
    encoder.finish(text);
    return text;
}

std::string encodeBase64(std::string_view bytes) {
    return encodeInPieces(bytes, std::max<std::size_t>(bytes.size(), 1));
}

std::string randomBytes(std::size_t length, unsigned int seed) {
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    std::string bytes(length, '\0');
    for (char& each : bytes) {
        each = static_cast<char>(byte(generator));
    }
    return bytes;
}

TEST(Base64Test, GivesTheVectorsOfTheStandard) {
    const std::vector<std::pair<std::string, std::string>> vectors = {{"", ""},
                                                                      {"f", "Zg=="},
                                                                      {"fo", "Zm8="},
                                                                      {"foo", "Zm9v"},
                                                                      {"foob", "Zm9vYg=="},
                                                                      {"fooba", "Zm9vYmE="},
                                                                      {"foobar", "Zm9vYmFy"}};

    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(text, encodeBase64(bytes));
    }
}

TEST(Base64Test, UsesEveryCharacterOfTheStandardAlphabet) {
    // 48 bytes whose groups of 6 bits count from 0 to 63.
    std::string bytes;
    for (unsigned int value = 0; value < 64; value += 4) {
        const unsigned int bits =
            (value << 18U) | ((value + 1) << 12U) | ((value + 2) << 6U) | (value + 3);
        bytes.push_back(static_cast<char>(bits >> 16U));
        bytes.push_back(static_cast<char>((bits >> 8U) & 0xFFU));
        bytes.push_back(static_cast<char>(bits & 0xFFU));
    }

    EXPECT_EQ(kAlphabet, encodeBase64(bytes));
}

TEST(Base64Test, TakesBytesOfEveryValue) {
    EXPECT_EQ("//4A", encodeBase64(std::string_view("\xff\xfe\0", 3)));
    EXPECT_EQ("AA==", encodeBase64(std::string_view("\0", 1)));
    for (int value = 0; value < 256; ++value) {
        const std::string bytes(1, static_cast<char>(value));
        EXPECT_EQ(bytes, kolvan::test::decodeBase64(encodeBase64(bytes))) << value;
    }
}

TEST(Base64Test, EveryLengthUpTo4096IsAsOtherEncodersHaveIt) {
    const std::string bytes = randomBytes(4096, 1);

    for (std::size_t length = 0; length <= bytes.size(); ++length) {
        const std::string head = bytes.substr(0, length);
        const std::string text = encodeBase64(head);
        ASSERT_EQ(encodePlainly(head), text) << length;
        ASSERT_EQ(encodeByBoost(head), text) << length;
    }
}

TEST(Base64Test, AMegabyteHasNoLineBreaksAndComesBack) {
    const std::string bytes = randomBytes(1024 * 1024 + 1, 2);

    const std::string text = encodeBase64(bytes);

    EXPECT_TRUE(encodePlainly(bytes) == text);
    EXPECT_TRUE(kolvan::test::decodeBase64(text) == bytes);
    EXPECT_EQ(std::string::npos, text.find_first_not_of(kAlphabet + "="));
}

TEST(Base64Test, PiecesOfAnySizeGiveTheTextOfTheWhole) {
    for (std::size_t length = 0; length <= 64; ++length) {
        const std::string bytes = randomBytes(length, 3);
        for (std::size_t pieceSize = 1; pieceSize <= length; ++pieceSize) {
            ASSERT_EQ(encodePlainly(bytes), encodeInPieces(bytes, pieceSize))
                << length << " bytes, in pieces of " << pieceSize;
        }
    }
    const std::string megabyte = randomBytes(1024 * 1024 + 1, 4);
    const std::string text = encodePlainly(megabyte);
    for (const std::size_t pieceSize : {1U, 3071U, 3072U, 3073U, 4096U, 65536U}) {
        EXPECT_TRUE(text == encodeInPieces(megabyte, pieceSize)) << pieceSize;
    }
}

TEST(Base64Test, EmptyPiecesAddNothing) {
    Base64Encoder encoder;
    std::string text;
    for (const char* piece : {"", "f", "", "oo", "", "b", ""}) {
        encoder.append(text, piece);
    }
    encoder.finish(text);

    EXPECT_EQ("Zm9vYg==", text);
}

TEST(Base64Test, EncoderIsReadyForTheNextTextAndLeavesWhatIsThere) {
    Base64Encoder encoder;
    std::string text = "= ";
    encoder.append(text, "f");
    encoder.finish(text);
    encoder.append(text, "fo");
    encoder.finish(text);
    encoder.finish(text);

    EXPECT_EQ("= Zg==Zm8=", text);
}

}  // namespace
}  // namespace cagnt1
