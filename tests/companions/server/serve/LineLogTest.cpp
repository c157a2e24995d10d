#include "companions/server/serve/LineLog.h"

#include "basekit2/UniqueFd.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace kolvan::server {
namespace {

class LineLogTest : public testing::Test {
protected:
    std::string written() const { return test::readFile(place.entry("log")); }

    const test::TemporaryDirectory place;
    const basekit2::UniqueFd file{
        ::open(place.entry("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)};
    const LineLog log{file.get()};
};

TEST_F(LineLogTest, EachTextIsALine) {
    log.write("one");
    log.write("");
    log.write("zwei: \xc3\xbc");

    EXPECT_EQ("one\n\nzwei: \xc3\xbc\n", written());
}

TEST_F(LineLogTest, TextOfAStrangerCannotMakeLinesOrSpeakToTheTerminal) {
    log.write(std::string_view("host\nStopping\r\x1b[2J\x7f\0end", 23));

    EXPECT_EQ("host?Stopping??[2J??end\n", written());
}

TEST_F(LineLogTest, LinesOfSeveralThreadsAreNotMixed) {
    const std::string one(2000, '1');
    const std::string two(2000, '2');
    std::thread other([&] {
        for (int line = 0; line < 500; ++line) {
            log.write(two);
        }
    });
    for (int line = 0; line < 500; ++line) {
        log.write(one);
    }
    other.join();

    const std::string text = written();
    ASSERT_EQ(1000U * 2001, text.size());
    for (std::size_t begin = 0; begin < text.size(); begin += 2001) {
        const std::string line = text.substr(begin, 2000);
        ASSERT_TRUE(line == one || line == two) << line;
    }
}

}  // namespace
}  // namespace kolvan::server
