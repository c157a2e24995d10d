#include "companions/server/api/Progress.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::api {
namespace {

TEST(ProgressTest, LineOfTheProfilerIsRead) {
    EXPECT_EQ((Progress{5.0, 4995, "hash(int const&)"}),
              progressOf(R"(<progress elapsed="5.0" samples="100" threads="3" cpu="98.2" )"
                         R"(rss="4096" stacks="4995" sampled="4.99" lost="0" )"
                         R"-(top1="72.1 % hash(int const&amp;)" top2="20.0 % fib"/>)-"));
}

TEST(ProgressTest, TimelineAloneHasItsOwnSamplesAndNoFunction) {
    EXPECT_EQ((Progress{0.5, 10, std::nullopt}),
              progressOf(R"(<progress elapsed="0.5" samples="10" threads="1"/>)"));
}

TEST(ProgressTest, TimeAloneIsEnough) {
    EXPECT_EQ((Progress{1.0, std::nullopt, std::nullopt}),
              progressOf("  <progress elapsed=\"1\" samples=\"many\"></progress>\r"));
}

TEST(ProgressTest, EscapesAreUndoneOnce) {
    EXPECT_EQ(R"(a<b>::c "d" 'e' &lt; &#x41; & f g h)",
              progressOf("<progress elapsed=\"1\" top1=\"1.0 % a&lt;b&gt;::c &quot;d&quot; "
                         "&apos;e&apos; &amp;lt; &#x41; & f&#9;g&#10;h\"/>")
                  .value()
                  .hottest);
}

TEST(ProgressTest, NameWithPerCentInItStaysWhole) {
    EXPECT_EQ("a % b", progressOf(R"(<progress elapsed="1" top1="1.0 % a % b"/>)").value().hottest);
    EXPECT_EQ("hash", progressOf(R"(<progress elapsed="1" top1="hash"/>)").value().hottest);
    EXPECT_EQ("", progressOf(R"(<progress elapsed="1" top1="1.0 % "/>)").value().hottest);
}

TEST(ProgressTest, OtherLinesSayNothing) {
    for (const char* line :
         {"", "<", "<progress", "<progress ", "<progress elapsed", "<progress elapsed=\"",
          "<progress elapsed=\"1", "<progress elapsed=\"1\"", "<progress elapsed='1'/>",
          "<progress elapsed=\"\"/>", "<progress elapsed=\"-1\"/>", "<progress elapsed=\"nan\"/>",
          "<progress elapsed=\"inf\"/>", "<progress elapsed=\"1e999\"/>",
          "<progress elapsed=\"1s\"/>", "<progress samples=\"1\"/>", "<progressive elapsed=\"1\"/>",
          "<collection state=\"started\" elapsed=\"1\"/>", "text <progress elapsed=\"1\"/>"}) {
        EXPECT_FALSE(progressOf(line)) << line;
    }
}

TEST(ProgressTest, ElementThatBreaksOffAnywhereIsHarmless) {
    const std::string line =
        R"(<progress elapsed="5.0" stacks="4995" top1="72.1 % a&amp;b" top2="1.0 % c"/>)";
    for (std::size_t length = 0; length < line.size() - 2; ++length) {
        EXPECT_FALSE(progressOf(line.substr(0, length))) << length;
    }
}

}  // namespace
}  // namespace kolvan::server::api
