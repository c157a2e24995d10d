#include "companions/server/api/EventPosition.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::api {
namespace {

EventPosition position() {
    EventPosition position;
    position.start = OperationId("7b1f0a52-0c60-4f0a-8a6e-2d1b6f1f8c33");
    position.of(OutputChannel::Stdout) = 18'446'744'073'709'551'615U;
    position.of(OutputChannel::Stderr) = 2;
    position.of(OutputChannel::Feedback) = 3;
    position.stage = EventPosition::Stage::Top;
    return position;
}

TEST(EventPositionTest, TextSaysHowFarEachChannelWasRead) {
    EXPECT_EQ("7b1f0a52-0c60-4f0a-8a6e-2d1b6f1f8c33.18446744073709551615.2.3.1", position().text());
}

TEST(EventPositionTest, TextIsReadBack) {
    EXPECT_EQ(position(), EventPosition::fromText(position().text()));
}

TEST(EventPositionTest, NewOneIsAtTheBeginning) {
    EXPECT_EQ(EventPosition(), EventPosition::fromText(".0.0.0.0"));
}

TEST(EventPositionTest, OtherTextIsNoPosition) {
    for (const char* text :
         {"", "7", "a.1.2.3", "a.1.2.3.3", "a.1.2.3.-1", "a.1.2.-3.0", "a.1.2.3.0.", "a.1.2. 3.0",
          "a.1.2.x.0", "a.1..3.0", "a.1.18446744073709551616.3.0", "...."}) {
        EXPECT_FALSE(EventPosition::fromText(text)) << text;
    }
}

}  // namespace
}  // namespace kolvan::server::api
