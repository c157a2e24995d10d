#include "companions/server/protocol/Base64Decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::protocol {
namespace {

std::string decode(std::string_view text, std::size_t pieceLength = 1000) {
    Base64Decoder decoder;
    std::string decoded;
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, pieceLength);
        std::vector<char> bytes(Base64Decoder::mostOf(piece.size()));
        decoded.append(bytes.data(), decoder.put(piece, bytes.data()));
        text.remove_prefix(piece.size());
    }
    decoder.finish();
    return decoded;
}

// Place of the error, or -1.
long errorIn(std::string_view text, std::size_t pieceLength = 1000) {
    try {
        (void)decode(text, pieceLength);
    } catch (const ProtocolError& error) {
        return static_cast<long>(error.place());
    }
    return -1;
}

TEST(Base64DecoderTest, VectorsOfTheStandard) {
    EXPECT_EQ("", decode(""));
    EXPECT_EQ("f", decode("Zg=="));
    EXPECT_EQ("fo", decode("Zm8="));
    EXPECT_EQ("foo", decode("Zm9v"));
    EXPECT_EQ("foob", decode("Zm9vYg=="));
    EXPECT_EQ("fooba", decode("Zm9vYmE="));
    EXPECT_EQ("foobar", decode("Zm9vYmFy"));
}

TEST(Base64DecoderTest, AllBitsAndCharacters) {
    EXPECT_EQ(std::string("\xFF\xFE\xFD\0\x10\x83", 6), decode("//79ABCD"));
    EXPECT_EQ(std::string("\xFB\xEF\xBE", 3), decode("++++"));
}

TEST(Base64DecoderTest, PiecesMayEndAnywhere) {
    for (std::size_t length = 1; length < 17; ++length) {
        EXPECT_EQ("the quick brown fox", decode("dGhlIHF1aWNrIGJyb3duIGZveA==", length)) << length;
    }
}

TEST(Base64DecoderTest, ForeignCharacterIsAnErrorAtItsPlace) {
    for (const std::size_t length : {1U, 2U, 3U, 5U, 1000U}) {
        EXPECT_EQ(9, errorIn("Zm9vZm9vZ\nm9v", length));
        EXPECT_EQ(0, errorIn("-m9v", length));
        EXPECT_EQ(5, errorIn(std::string("Zm9vZ\0==", 8), length));
        EXPECT_EQ(3, errorIn("Zm9\xE4", length));
    }
}

TEST(Base64DecoderTest, MisplacedPaddingIsAnError) {
    for (const std::size_t length : {1U, 3U, 1000U}) {
        EXPECT_EQ(0, errorIn("=", length));
        EXPECT_EQ(1, errorIn("Z===", length));
        EXPECT_EQ(3, errorIn("Zg=g", length));
        EXPECT_EQ(4, errorIn("Zg==Zg==", length));
        EXPECT_EQ(4, errorIn("Zg===", length));
        EXPECT_EQ(4, errorIn("Zm8=Zm9v", length));
    }
}

TEST(Base64DecoderTest, MissingEndIsAnError) {
    EXPECT_EQ(1, errorIn("Z"));
    EXPECT_EQ(2, errorIn("Zg"));
    EXPECT_EQ(3, errorIn("Zg="));
    EXPECT_EQ(7, errorIn("Zm9vZm9"));
}

TEST(Base64DecoderTest, BitsWithoutMeaningAreAnError) {
    EXPECT_EQ(3, errorIn("Zh=="));
    EXPECT_EQ(3, errorIn("Zm9="));
}

}  // namespace
}  // namespace kolvan::server::protocol
