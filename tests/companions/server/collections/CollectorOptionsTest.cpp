#include "companions/server/collections/CollectorOptions.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace kolvan::server {
namespace {

CollectionRequest processRequest() {
    CollectionRequest request;
    request.pid = 4711;
    return request;
}

TEST(CollectorOptionsTest, ProcessIsProfiledUntilItEnds) {
    EXPECT_EQ("-r\nresults\n--profile\ncpu\n--frequency\n999\n--pid\n4711",
              collectorOptions(processRequest()));
}

TEST(CollectorOptionsTest, EveryWishHasItsOption) {
    CollectionRequest request = processRequest();
    request.profile = "wait";
    request.frequency = 99;
    request.duration = std::chrono::milliseconds(1500);
    request.children = false;

    EXPECT_EQ(
        "-r\nresults\n--profile\nwait\n--frequency\n99\n--duration\n1500ms\n--no-children\n"
        "--pid\n4711",
        collectorOptions(request));
}

TEST(CollectorOptionsTest, CommandComesLastWithALineForEachArgument) {
    CollectionRequest request;
    request.command = {"/bin/sh", "-c", "echo one two"};

    EXPECT_EQ("-r\nresults\n--profile\ncpu\n--frequency\n999\n--\n/bin/sh\n-c\necho one two",
              collectorOptions(request));
}

TEST(CollectorOptionsTest, NeitherProcessNorCommandIsRefused) {
    EXPECT_THROW(collectorOptions({}), std::invalid_argument);
}

TEST(CollectorOptionsTest, BothProcessAndCommandAreRefused) {
    CollectionRequest request = processRequest();
    request.command = {"true"};

    EXPECT_THROW(collectorOptions(request), std::invalid_argument);
}

class UnfitArgumentTest : public testing::TestWithParam<std::string> {};

TEST_P(UnfitArgumentTest, IsRefused) {
    CollectionRequest request;
    request.command = {"true", GetParam()};

    EXPECT_THROW(collectorOptions(request), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(, UnfitArgumentTest,
                         testing::Values("", "-r", "two\nlines", std::string("nul\0", 4)));

TEST(CollectorOptionsTest, ExitStatusTellsHowACollectionEnded) {
    EXPECT_EQ(CollectionState::Done, outcomeOf(0));
    EXPECT_EQ(CollectionState::Cancelled, outcomeOf(5));
    EXPECT_EQ(CollectionState::Failed, outcomeOf(1));
    EXPECT_EQ(CollectionState::Failed, outcomeOf(137));
    EXPECT_EQ(CollectionState::Failed, outcomeOf({}));
}

}  // namespace
}  // namespace kolvan::server
