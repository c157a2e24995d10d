#include "companions/server/profiles/FlameGraph.h"

#include "tests/companions/server/profiles/PprofFile.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::profiles {
namespace {

using test::PprofFile;
using test::written;

std::string graphOf(const Profile& profile, const Filter& filter = {}) {
    return written([&](const Sink& sink) { writeFlameGraph(profile, filter, sink); });
}

TEST(FlameGraphTest, StacksAreLaidOverEachOther) {
    const Profile profile = PprofFile()
                                .sample("main;g", {1, 20})
                                .sample("main;f", {1, 30})
                                .sample("main", {1, 5})
                                .read();

    EXPECT_EQ(R"({"sampleType":"cpu","unit":"nanoseconds","total":55,)"
              R"("functions":[{"name":"f","module":"/opt/app"},{"name":"g","module":"/opt/app"},)"
              R"({"name":"main","module":"/opt/app"}],)"
              R"("nodes":{"parent":[0,0,1,1],"function":[-1,2,0,1],"self":[0,5,30,20],)"
              R"("total":[55,55,30,20]}})",
              graphOf(profile));
}

TEST(FlameGraphTest, OrderOfTheSamplesChangesNothing) {
    EXPECT_EQ(graphOf(PprofFile().sample("a;b", {1, 1}).sample("a;c", {1, 2}).read()),
              graphOf(PprofFile().sample("a;c", {1, 2}).sample("a;b", {1, 1}).read()));
}

TEST(FlameGraphTest, WhatTheFilterLeavesNothingOfIsLeftOut) {
    const Profile profile = PprofFile()
                                .thread(1, 1)
                                .sample("main;f;g", {1, 20})
                                .thread(1, 2)
                                .sample("main;h", {1, 30})
                                .read();

    EXPECT_EQ(
        R"({"sampleType":"cpu","unit":"nanoseconds","total":30,)"
        R"("functions":[{"name":"h","module":"/opt/app"},{"name":"main","module":"/opt/app"}],)"
        R"("nodes":{"parent":[0,0,1],"function":[-1,1,0],"self":[0,0,30],"total":[30,30,30]}})",
        graphOf(profile, {.thread = 2}));
}

TEST(FlameGraphTest, EmptyProfileIsTheTopAlone) {
    EXPECT_EQ(R"({"sampleType":"cpu","unit":"nanoseconds","total":0,"functions":[],)"
              R"("nodes":{"parent":[0],"function":[-1],"self":[0],"total":[0]}})",
              graphOf(PprofFile().read()));
}

TEST(FlameGraphTest, NamesAreText) {
    const std::string graph =
        graphOf(PprofFile().sample("</script>\"\\\x01\xFF@/m\n", {1, 1}).read());

    EXPECT_NE(std::string::npos, graph.find(R"({"name":"</script>\"\\\u0001)"
                                            "\xEF\xBF\xBD"
                                            R"(","module":"/m\n"})"));
}

TEST(FlameGraphTest, DeepStackIsWrittenWhole) {
    std::string stack = "f";
    for (int depth = 1; depth < 20'000; ++depth) {
        stack += ";f";
    }

    const std::string graph = graphOf(PprofFile().sample(stack, {1, 1}).read());

    EXPECT_NE(std::string::npos, graph.find("19998,19999],"));
}

TEST(FlameGraphTest, WhatTheSinkThrowsEndsTheView) {
    const Profile profile = PprofFile().read();

    EXPECT_THROW(writeFlameGraph(profile, {}, [](std::string_view) { throw 1; }), int);
}

}  // namespace
}  // namespace kolvan::server::profiles
