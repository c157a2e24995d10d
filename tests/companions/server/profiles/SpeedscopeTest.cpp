#include "companions/server/profiles/Speedscope.h"

#include "tests/companions/server/profiles/PprofFile.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::profiles {
namespace {

using test::PprofFile;
using test::written;

std::string speedscope(const Profile& profile, const Filter& filter = {}) {
    return written([&](const Sink& sink) { writeSpeedscope(profile, filter, "na\"me", sink); });
}

const std::string kHead =
    R"x({"$schema":"https://www.speedscope.app/file-format-schema.json","name":"na\"me",)x"
    R"x("exporter":"kolvan-server",)x";

TEST(SpeedscopeTest, EachThreadIsAProfileInTheOrderOfItsTimes) {
    const Profile profile = PprofFile()
                                .thread(10, 11, "worker", "app")
                                .at(200)
                                .sample("main;f", {1, 20})
                                .at(100)
                                .sample("main", {1, 5})
                                .sample("main", {1, 6})
                                .thread(10, 10, "app", "app")
                                .at(0)
                                .sample("main;g", {1, 7})
                                .read();

    EXPECT_EQ(kHead +
                  R"x("shared":{"frames":[{"name":"f","file":"/opt/app"},)x"
                  R"x({"name":"g","file":"/opt/app"},{"name":"main","file":"/opt/app"}]},)x"
                  R"x("profiles":[{"type":"sampled","name":"app (10)","unit":"nanoseconds",)x"
                  R"x("samples":[[2,1]],"weights":[7],"startValue":0,"endValue":7},)x"
                  R"x({"type":"sampled","name":"worker (11 of app 10)","unit":"nanoseconds",)x"
                  R"x("samples":[[2],[2,0]],"weights":[11,20],"startValue":0,"endValue":31}]})x",
              speedscope(profile));
}

TEST(SpeedscopeTest, UnitThatIsNotKnownThereIsNone) {
    const Profile profile = PprofFile().thread(1, 1).sample("main", {3, 5}).read();

    EXPECT_EQ(kHead + R"x("shared":{"frames":[{"name":"main","file":"/opt/app"}]},)x"
                      R"x("profiles":[{"type":"sampled","name":"thread (1)","unit":"none",)x"
                      R"x("samples":[[0]],"weights":[3],"startValue":0,"endValue":3}]})x",
              speedscope(profile, {.sampleType = "samples"}));
}

TEST(SpeedscopeTest, ThreadWithoutSamplesIsLeftOut) {
    const Profile profile =
        PprofFile().thread(1, 1).sample("main", {1, 5}).thread(1, 2).sample("main", {1, 0}).read();

    EXPECT_EQ(kHead + R"x("shared":{"frames":[]},"profiles":[]})x",
              speedscope(profile, {.thread = 2}));
}

}  // namespace
}  // namespace kolvan::server::profiles
