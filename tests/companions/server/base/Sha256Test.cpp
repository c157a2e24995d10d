#include "companions/server/base/Sha256.h"

#include <gtest/gtest.h>

#include <span>
#include <string_view>

namespace kolvan::server {
namespace {

// FIPS 180-2, appendices B.1 and B.2.
constexpr std::string_view kTwoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
constexpr char kDigestOfTwoBlocks[] =
    "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1";

TEST(Sha256Test, DigestIsThatOfTheStandard) {
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
              sha256("abc").hex());
    EXPECT_EQ(kDigestOfTwoBlocks, sha256(kTwoBlocks).hex());
}

TEST(Sha256Test, PiecesGiveTheDigestOfTheWhole) {
    for (std::size_t cut = 0; cut <= kTwoBlocks.size(); ++cut) {
        Sha256Sum sum;
        sum.add(std::as_bytes(std::span(kTwoBlocks.substr(0, cut))));
        sum.add(std::as_bytes(std::span(kTwoBlocks.substr(cut))));

        EXPECT_EQ(kDigestOfTwoBlocks, sum.finish().hex()) << cut;
    }
}

TEST(Sha256Test, ComparisonLooksAtEveryByte) {
    const Sha256 digest = sha256("abc");

    EXPECT_TRUE(equalInConstantTime(digest, sha256("abc")));
    for (std::size_t place = 0; place < digest.bytes.size(); ++place) {
        Sha256 other = digest;
        other.bytes[place] ^= std::byte{1};
        EXPECT_FALSE(equalInConstantTime(digest, other)) << place;
    }
}

}  // namespace
}  // namespace kolvan::server
