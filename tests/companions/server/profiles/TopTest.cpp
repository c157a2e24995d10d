#include "companions/server/profiles/Top.h"

#include "tests/companions/server/profiles/PprofFile.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::profiles {
namespace {

using test::PprofFile;
using test::written;

std::string topOf(const Profile& profile, const Filter& filter = {}, std::size_t most = 100) {
    const Top top = findTop(profile, filter, most);
    std::string text = std::to_string(top.total);
    for (const Top::Function& entry : top.functions) {
        text += " " + profile.functions[entry.function].name + "=" + std::to_string(entry.self) +
                "/" + std::to_string(entry.total);
    }
    return text;
}

TEST(TopTest, FunctionsAreSortedByWhatTheyTakeThemselves) {
    const Profile profile = PprofFile()
                                .sample("main;f", {1, 20})
                                .sample("main;g", {1, 30})
                                .sample("main", {1, 5})
                                .read();

    EXPECT_EQ("55 g=30/30 f=20/20 main=5/55", topOf(profile));
    EXPECT_EQ("55 g=30/30", topOf(profile, {}, 1));
}

TEST(TopTest, RecursionCountsOnceInTheTotal) {
    const Profile profile =
        PprofFile().sample("main;f;g;f;f", {1, 10}).sample("main;g;f", {1, 5}).read();

    EXPECT_EQ("15 f=15/15 g=0/15 main=0/15", topOf(profile));
}

TEST(TopTest, SameNameInAnotherModuleIsAnotherFunction) {
    const Profile profile =
        PprofFile().sample("main;f@/a", {1, 10}).sample("main;f@/b", {1, 5}).read();

    EXPECT_EQ("15 f=10/10 f=5/5 main=0/15", topOf(profile));
}

TEST(TopTest, FilterLetsThroughAThreadATimeOrAType) {
    const Profile profile = PprofFile()
                                .thread(1, 11)
                                .at(0)
                                .sample("a", {1, 10})
                                .at(100)
                                .sample("b", {2, 20})
                                .thread(1, 12)
                                .at(200)
                                .sample("c", {3, 40})
                                .thread(1, 12)
                                .sample("d", {4, 80})
                                .read();

    EXPECT_EQ("30 b=20/20 a=10/10", topOf(profile, {.thread = 11}));
    EXPECT_EQ("60 c=40/40 b=20/20", topOf(profile, {.from = 100}));
    EXPECT_EQ("30 b=20/20 a=10/10", topOf(profile, {.to = 200}));
    EXPECT_EQ("20 b=20/20", topOf(profile, {.from = 100, .to = 200}));
    EXPECT_EQ("10 d=4/4 c=3/3 b=2/2 a=1/1", topOf(profile, {.sampleType = "samples"}));
    EXPECT_EQ("0", topOf(profile, {.thread = 13}));
}

TEST(TopTest, UnknownTypeIsRefusedWithThoseThatThereAre) {
    const Profile profile = PprofFile().read();

    try {
        (void)topOf(profile, {.sampleType = "wait"});
        FAIL() << "there is one";
    } catch (const BadFilter& error) {
        EXPECT_STREQ("The profile has no sample type 'wait'; what it has is 'samples', 'cpu'.",
                     error.what());
    }
}

TEST(TopTest, JsonTellsThreadsWhateverThreadIsShown) {
    const Profile profile = PprofFile()
                                .thread(10, 11, "worker", "app")
                                .at(0)
                                .sample("a\"\n;b", {1, 10})
                                .thread(10, 10, "main", "app")
                                .at(0)
                                .sample("a\"\n", {1, 30})
                                .read();

    EXPECT_EQ(R"({"sampleType":"cpu","unit":"nanoseconds","total":10,)"
              R"("functions":[{"name":"b","module":"/opt/app","self":10,"total":10},)"
              R"({"name":"a\"\n","module":"/opt/app","self":0,"total":10}],)"
              R"("threads":[{"id":10,"name":"main","process":10,"processName":"app","total":30},)"
              R"({"id":11,"name":"worker","process":10,"processName":"app","total":10}]})",
              written([&](const Sink& sink) { writeTop(profile, {.thread = 11}, 10, sink); }));
}

}  // namespace
}  // namespace kolvan::server::profiles
