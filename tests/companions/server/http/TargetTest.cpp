#include "companions/server/http/Target.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kolvan::server::http {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(TargetTest, PathIsTakenApartAtSlashes) {
    const auto target = parseTarget("/api/v1/agents?name=x");

    ASSERT_TRUE(target);
    EXPECT_THAT(target->segments, ElementsAre("api", "v1", "agents"));
    EXPECT_EQ("name=x", target->rawQuery);
}

TEST(TargetTest, RootHasNoSegments) {
    ASSERT_TRUE(parseTarget("/"));
    EXPECT_THAT(parseTarget("/")->segments, IsEmpty());
}

TEST(TargetTest, SlashesAtTheBeginningCountAsOne) {
    EXPECT_THAT(parseTarget("//api/x")->segments, ElementsAre("api", "x"));
}

TEST(TargetTest, SlashAtTheEndMakesAnEmptySegment) {
    EXPECT_THAT(parseTarget("/api/")->segments, ElementsAre("api", ""));
}

TEST(TargetTest, EncodedSlashStaysInItsSegment) {
    EXPECT_THAT(parseTarget("/a%2Fb/%e4%C4")->segments, ElementsAre("a/b", "\xe4\xc4"));
}

TEST(TargetTest, PlusIsAPlusInAPath) {
    EXPECT_THAT(parseTarget("/a+b")->segments, ElementsAre("a+b"));
}

TEST(TargetTest, WholeAddressIsReadAsItsPath) {
    EXPECT_THAT(parseTarget("http://host:80/a?b")->segments, ElementsAre("a"));
    EXPECT_THAT(parseTarget("https://host")->segments, IsEmpty());
    EXPECT_EQ("q=1", parseTarget("http://host?q=1")->rawQuery);
}

TEST(TargetTest, BrokenEncodingIsRefused) {
    for (const char* text : {"/%", "/%4", "/%4g", "/%g4", "/%%41", "/a%"}) {
        EXPECT_FALSE(parseTarget(text)) << text;
    }
}

TEST(TargetTest, EncodedNulIsRefused) {
    EXPECT_FALSE(parseTarget("/a%00b"));
    EXPECT_FALSE(parseQuery("a=%00"));
}

TEST(TargetTest, OtherFormsAreRefused) {
    for (const char* text : {"", "*", "a/b", "host:443", "ftp://host/"}) {
        EXPECT_FALSE(parseTarget(text)) << text;
    }
}

TEST(TargetTest, QueryKeepsOrderAndRepetitions) {
    EXPECT_THAT(*parseQuery("b=2&a=1&b=3"),
                ElementsAre(Pair("b", "2"), Pair("a", "1"), Pair("b", "3")));
}

TEST(TargetTest, QueryIsDecodedLikeAForm) {
    EXPECT_THAT(*parseQuery("a+b=c+d%2B%26&&e&f=g=h&="),
                ElementsAre(Pair("a b", "c d+&"), Pair("e", ""), Pair("f", "g=h"), Pair("", "")));
}

TEST(TargetTest, BrokenEncodingInAQueryIsRefused) {
    EXPECT_FALSE(parseQuery("a=%"));
    EXPECT_FALSE(parseQuery("%zz=1"));
}

}  // namespace
}  // namespace kolvan::server::http
