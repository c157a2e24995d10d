#include "companions/server/profiles/Collapsed.h"

#include "tests/companions/server/profiles/PprofFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace kolvan::server::profiles {
namespace {

using test::PprofFile;
using test::written;

std::string collapsed(const Profile& profile, const Filter& filter = {}) {
    return written([&](const Sink& sink) { writeCollapsed(profile, filter, sink); });
}

TEST(CollapsedTest, EachStackIsALine) {
    const Profile profile = PprofFile()
                                .sample("main;g;h", {1, 20})
                                .sample("main;f", {1, 30})
                                .sample("main;g;h", {2, 1})
                                .sample("main", {1, 5})
                                .sample("other", {1, 7})
                                .read();

    EXPECT_EQ("main 5\nmain;f 30\nmain;g;h 21\nother 7\n", collapsed(profile));
    EXPECT_EQ("main 1\nmain;f 1\nmain;g;h 3\nother 1\n",
              collapsed(profile, {.sampleType = "samples"}));
}

TEST(CollapsedTest, WhatTheFilterLeavesNothingOfIsLeftOut) {
    const Profile profile = PprofFile()
                                .thread(1, 1)
                                .sample("main;a;b", {1, 20})
                                .thread(1, 2)
                                .sample("main;c", {1, 30})
                                .read();

    EXPECT_EQ("main;c 30\n", collapsed(profile, {.thread = 2}));
}

TEST(CollapsedTest, NameNeverBreaksTheLine) {
    Profile profile = PprofFile().sample("main;f\ng\x7F", {1, 1}).read();
    profile.functions[1].name += ";x";

    EXPECT_EQ("main;f?g?:x 1\n", collapsed(profile));
}

TEST(CollapsedTest, TooMuchTextIsRefused) {
    PprofFile file;
    for (int number = 0; number < 3000; ++number) {
        file.sample("long;" + std::to_string(number), {1, 1});
    }
    Profile profile = file.read();
    const auto named = std::ranges::find(profile.functions, "long", &Profile::Function::name);
    ASSERT_NE(profile.functions.end(), named);
    // Not in the file already, where making and reading it would cost more than what is tested.
    named->name = std::string(500'000, 'n');

    try {
        writeCollapsed(profile, {}, [](std::string_view) {});
        FAIL() << "it was written";
    } catch (const ViewTooLarge& error) {
        EXPECT_STREQ("This view of the profile would be larger than 1 GiB.", error.what());
    }
}

}  // namespace
}  // namespace kolvan::server::profiles
