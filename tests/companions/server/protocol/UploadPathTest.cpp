#include "companions/server/protocol/UploadPath.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::protocol {
namespace {

TEST(UploadPathTest, DirectoryAndFileAreJoined) {
    EXPECT_EQ("traces/data.0/profile.pb.gz", safeUploadPath("traces/data.0", "profile.pb.gz"));
    EXPECT_EQ("file", safeUploadPath("", "file"));
    EXPECT_EQ("a b/\xC3\xA4", safeUploadPath("a b", "\xC3\xA4"));
}

TEST(UploadPathTest, SlashesTooManyAreLeftOut) {
    EXPECT_EQ("a/b/c", safeUploadPath("/a//./b/", "c"));
}

TEST(UploadPathTest, WhatLeadsElsewhereIsRefused) {
    for (const char* directory : {"..", "a/..", "a/../b", "../../etc", "a\\b", "C:\\x", ".hidden",
                                  "a/.b", "a\nb", "a\x7F", "..."}) {
        EXPECT_FALSE(safeUploadPath(directory, "file")) << directory;
    }
    for (const char* name : {"", ".", "..", "a/b", "/", "a\\b", ".hidden", "a\tb"}) {
        EXPECT_FALSE(safeUploadPath("a", name)) << name;
    }
    EXPECT_FALSE(safeUploadPath(std::string("a\0b", 3), "file"));
    EXPECT_FALSE(safeUploadPath("a", std::string("b\0", 2)));
}

TEST(UploadPathTest, LengthsAreLimited) {
    EXPECT_TRUE(safeUploadPath("a", std::string(kLongestPart, 'x')));
    EXPECT_FALSE(safeUploadPath("a", std::string(kLongestPart + 1, 'x')));
    std::string deep;
    for (std::size_t part = 1; part < kMostParts; ++part) {
        deep += "d/";
    }
    EXPECT_TRUE(safeUploadPath(deep, "f"));
    EXPECT_FALSE(safeUploadPath(deep + "d", "f"));
    const std::string part(kLongestPart, 'x');
    const std::string longest = part + '/' + part + '/' + part + '/' + part + '/' + part;
    EXPECT_TRUE(safeUploadPath(longest, std::string(kLongestPath - longest.size() - 1, 'f')));
    EXPECT_FALSE(safeUploadPath(longest, std::string(kLongestPath - longest.size(), 'f')));
}

}  // namespace
}  // namespace kolvan::server::protocol
