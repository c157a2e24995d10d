#include "companions/server/profiles/Comparison.h"

#include "tests/companions/server/profiles/PprofFile.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::profiles {
namespace {

using test::PprofFile;
using test::written;

std::string functionsOf(const Comparison& comparison) {
    std::string text;
    for (const Comparison::Function& function : comparison.functions) {
        text += function.name + " " + std::to_string(function.baseSelf) + "/" +
                std::to_string(function.baseTotal) + " " + std::to_string(function.otherSelf) +
                "/" + std::to_string(function.otherTotal) + " " +
                std::to_string(function.selfDifference) + "\n";
    }
    return text;
}

TEST(ComparisonTest, DifferencesAreThoseOfTheShares) {
    const Profile base = PprofFile()
                             .sample("main;f", {1, 50})
                             .sample("main;g", {1, 40})
                             .sample("main", {1, 10})
                             .read();
    const Profile other = PprofFile().sample("main;f", {1, 50}).sample("main;g", {1, 150}).read();

    const Comparison comparison = compare(base, other, {});

    EXPECT_EQ(100U, comparison.baseTotal);
    EXPECT_EQ(200U, comparison.otherTotal);
    EXPECT_EQ(
        "g 40/40 150/150 0.350000\n"
        "f 50/50 50/50 -0.250000\n"
        "main 10/100 0/200 -0.100000\n",
        functionsOf(comparison));
}

TEST(ComparisonTest, FunctionsOfOneSideAreThere) {
    const Profile base = PprofFile().sample("main;old", {1, 10}).read();
    const Profile other = PprofFile().sample("main;new", {1, 10}).read();

    EXPECT_EQ(
        "new 0/0 10/10 1.000000\n"
        "old 10/10 0/0 -1.000000\n"
        "main 0/10 0/10 0.000000\n",
        functionsOf(compare(base, other, {})));
}

TEST(ComparisonTest, DirectoryOfTheModuleMayDiffer) {
    const Profile base = PprofFile().sample("f@/opt/v1/app", {1, 10}).read();
    const Profile other = PprofFile().sample("f@/opt/v2/app", {1, 10}).read();

    const Comparison comparison = compare(base, other, {});

    ASSERT_EQ(1U, comparison.functions.size());
    EXPECT_EQ("/opt/v2/app", comparison.functions[0].module);
}

TEST(ComparisonTest, RecursionCountsOnce) {
    const Profile base = PprofFile().sample("f;f;f", {1, 10}).read();

    EXPECT_EQ("f 10/10 10/10 0.000000\n", functionsOf(compare(base, base, {})));
}

TEST(ComparisonTest, EmptyProfileHasNoShares) {
    const Profile other = PprofFile().sample("f", {1, 10}).read();

    EXPECT_EQ("f 0/0 10/10 1.000000\n", functionsOf(compare(PprofFile().read(), other, {})));
}

TEST(ComparisonTest, FilterGoesForBoth) {
    const Profile base =
        PprofFile().thread(1, 7).sample("a", {1, 10}).thread(1, 8).sample("b", {1, 10}).read();
    const Profile other = PprofFile().thread(1, 7).sample("a", {3, 10}).read();

    const Comparison comparison = compare(base, other, {.thread = 7, .sampleType = "samples"});

    EXPECT_EQ("samples", comparison.sampleType);
    EXPECT_EQ("a 1/1 3/3 0.000000\n", functionsOf(comparison));
}

TEST(ComparisonTest, ProfilesOfDifferentKindsAreNotCompared) {
    const Profile cpu = PprofFile().type("cpu", "nanoseconds").read();
    const Profile wait = PprofFile().type("wait", "nanoseconds").read();
    const Profile slow = PprofFile().type("cpu", "seconds").read();

    EXPECT_THROW((void)compare(cpu, wait, {}), BadFilter);
    EXPECT_THROW((void)compare(cpu, slow, {}), BadFilter);
}

TEST(ComparisonTest, JsonHasFunctionsAndWays) {
    const Profile base = PprofFile().sample("main;f", {1, 3}).sample("main", {1, 1}).read();
    const Profile other = PprofFile().sample("main;a", {1, 4}).read();

    EXPECT_EQ(R"({"sampleType":"cpu","unit":"nanoseconds","baseTotal":4,"otherTotal":4,)"
              R"("functions":[{"name":"a","module":"/opt/app","baseSelf":0,"baseTotal":0,)"
              R"("otherSelf":4,"otherTotal":4,"selfDifference":1.0,"totalDifference":1.0},)"
              R"({"name":"f","module":"/opt/app","baseSelf":3,"baseTotal":3,)"
              R"("otherSelf":0,"otherTotal":0,"selfDifference":-0.75,"totalDifference":-0.75},)"
              R"({"name":"main","module":"/opt/app","baseSelf":1,"baseTotal":4,)"
              R"("otherSelf":0,"otherTotal":4,"selfDifference":-0.25,"totalDifference":0.0}],)"
              R"("nodes":{"parent":[0,0,1,1],"function":[-1,2,0,1],"baseSelf":[0,1,0,3],)"
              R"("baseTotal":[4,4,0,3],"otherSelf":[0,0,4,0],"otherTotal":[4,4,4,0]}})",
              written([&](const Sink& sink) { writeComparison(compare(base, other, {}), sink); }));
}

}  // namespace
}  // namespace kolvan::server::profiles
