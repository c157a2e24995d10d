#include "tests/soak/RecordChecker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kolvan::test::soak {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kStream = 7;

std::string record(std::uint64_t number, bool isLast = false) {
    std::string text;
    appendRecord(text, kStream, number, 10, isLast);
    return text;
}

std::string problemOf(const std::string& text) {
    RecordStream stream(kStream);
    stream.add(text);
    return stream.problem();
}

TEST(RecordCheckerTest, WholeStreamIsRightInPiecesOfAnySize) {
    const std::string text = record(0) + record(1) + record(2, true);

    for (std::size_t size = 1; size <= text.size(); ++size) {
        RecordStream stream(kStream);
        for (std::size_t begin = 0; begin < text.size(); begin += size) {
            stream.add(std::string_view(text).substr(begin, size));
        }
        EXPECT_EQ("", stream.problem()) << size;
        EXPECT_EQ(text.size(), stream.bytes());
    }
}

TEST(RecordCheckerTest, EveryLossIsFound) {
    const std::string text = record(0) + record(1) + record(2, true);

    for (std::size_t place = 0; place < text.size(); ++place) {
        std::string damaged = text;
        damaged.erase(place, 1);
        EXPECT_NE("", problemOf(damaged)) << place;
    }
}

TEST(RecordCheckerTest, EveryChangeIsFound) {
    const std::string text = record(0) + record(1, true);

    for (std::size_t place = 0; place < text.size(); ++place) {
        std::string damaged = text;
        damaged[place] = static_cast<char>(damaged[place] ^ 1);
        EXPECT_NE("", problemOf(damaged)) << place;
    }
}

TEST(RecordCheckerTest, LostRepeatedAndExchangedRecordsAreNamed) {
    EXPECT_EQ("record 1 is number 2", problemOf(record(0) + record(2, true)));
    EXPECT_EQ("record 1 is number 0", problemOf(record(0) + record(0) + record(1, true)));
    EXPECT_EQ("record 0 is number 1", problemOf(record(1) + record(0) + record(2, true)));
    EXPECT_EQ("record 1 follows the last one", problemOf(record(0, true) + record(1)));
    EXPECT_EQ("it ends within or before record 1", problemOf(record(0)));
    EXPECT_EQ("it ends within or before record 0", problemOf(""));
}

TEST(RecordCheckerTest, EveryChannelOfEveryExpectedRunIsAskedFor) {
    RecordChecker checker;
    checker.expect("run", 1);
    std::string whole;
    appendRecord(whole, streamOf(1, 0), 0, 5, true);
    checker.add({"run", Channel::Feedback, whole});
    checker.add({"other", Channel::Stdout, "x"});

    EXPECT_THAT(checker.problems(), ElementsAre("output of 'other', which nobody has started",
                                                "run stdout: it ends within or before record 0",
                                                "run stderr: it ends within or before record 0"));
    EXPECT_EQ(whole.size() + 1, checker.bytes());
}

}  // namespace
}  // namespace kolvan::test::soak
