#include "agent/ReplyHandling.h"

#include "tests/support/Messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace cagnt1 {
namespace {

using kolvan::test::Messages;
using ::testing::ElementsAre;

/// A handling whose messages have the replies of a table. A message "throw X" fails with the text
/// X; an "error" message is answered by the table's entry "error X", and cannot be sent where that
/// is "unsent".
class ReplyHandlingTest : public ::testing::Test {
protected:
    Messages replyTo(const std::string& type) {
        Messages reply;
        for (const std::string& next : replies[type]) {
            reply.push_back({next, {}});
        }
        return reply;
    }

    Messages handle(const Message& message) {
        events.push_back(message.type);
        if (message.type.starts_with("throw ")) {
            throw std::runtime_error(message.type.substr(6));
        }
        return replyTo(message.type);
    }

    Messages exchange(const Message& message) {
        const std::string name = "error " + message.parameter("errorMessage");
        events.push_back(name);
        if (replies[name] == std::vector<std::string>{"unsent"}) {
            throw std::runtime_error("cannot send " + name);
        }
        return replyTo(name);
    }

    static Messages messages(const std::vector<std::string>& types) {
        Messages list;
        for (const std::string& type : types) {
            list.push_back({type, {}});
        }
        return list;
    }

    std::map<std::string, std::vector<std::string>> replies;
    std::vector<std::string> events;
    const ReplyHandling handling{[this](const Message& message) { return handle(message); },
                                 [this](const Message& message) { return exchange(message); }};
};

}  // namespace

TEST_F(ReplyHandlingTest, EmptyReplyAsksForNothing) {
    handling.handleReply({});

    EXPECT_THAT(events, ElementsAre());
}

TEST_F(ReplyHandlingTest, MessagesAreHandledInTheirOrder) {
    handling.handleReply(messages({"a", "b", "c"}));

    EXPECT_THAT(events, ElementsAre("a", "b", "c"));
}

TEST_F(ReplyHandlingTest, ReplyToWhatAMessageHasSentComesBeforeTheRest) {
    replies = {{"a", {"a1", "a2"}}, {"a1", {"a11"}}};

    handling.handleReply(messages({"a", "b"}));

    EXPECT_THAT(events, ElementsAre("a", "a1", "a11", "a2", "b"));
}

TEST_F(ReplyHandlingTest, FailureIsToldAndTheRestIsHandled) {
    replies = {{"error x", {"consolation"}}};

    handling.handleReply(messages({"throw x", "b"}));

    EXPECT_THAT(events, ElementsAre("throw x", "error x", "consolation", "b"));
}

TEST_F(ReplyHandlingTest, FailureThatCannotBeToldIsThrownAndTheRestIsDropped) {
    replies = {{"error x", {"unsent"}}};

    EXPECT_THROW(handling.handleReply(messages({"throw x", "b"})), std::runtime_error);

    EXPECT_THAT(events, ElementsAre("throw x", "error x"));
}

TEST_F(ReplyHandlingTest, FailureOfAFollowingReplyIsToldAsTheFailureOfWhatBroughtIt) {
    replies = {{"a", {"throw x", "a2"}}, {"error x", {"unsent"}}};

    handling.handleReply(messages({"a", "b"}));

    EXPECT_THAT(events, ElementsAre("a", "throw x", "error x", "error cannot send error x", "b"));
}

TEST_F(ReplyHandlingTest, FailuresThatCannotBeToldAtAnyDepthAreThrown) {
    replies = {{"a", {"throw x", "a2"}},
               {"error x", {"unsent"}},
               {"error cannot send error x", {"unsent"}}};

    EXPECT_THROW(handling.handleReply(messages({"a", "b"})), std::runtime_error);

    EXPECT_THAT(events, ElementsAre("a", "throw x", "error x", "error cannot send error x"));
}

TEST_F(ReplyHandlingTest, ReplyToAnErrorBelongsToTheReplyOfTheFailure) {
    replies = {{"error x", {"throw y"}}, {"error y", {"unsent"}}};

    EXPECT_THROW(handling.handleReply(messages({"throw x", "b"})), std::runtime_error);

    EXPECT_THAT(events, ElementsAre("throw x", "error x", "throw y", "error y"));
}

TEST_F(ReplyHandlingTest, FailureOfAnActionThatCannotBeToldIsThrown) {
    replies = {{"error x", {"unsent"}}};

    EXPECT_THROW(handling.handleAction([]() -> Messages { throw std::runtime_error("x"); }),
                 std::runtime_error);

    EXPECT_THAT(events, ElementsAre("error x"));
}

TEST_F(ReplyHandlingTest, RepliesMayFollowEachOtherWithoutLimit) {
    constexpr std::size_t kChain = 100'000;
    std::size_t handled = 0;
    const ReplyHandling chain(
        [&](const Message& message) { return ++handled < kChain ? Messages{message} : Messages{}; },
        [](const Message&) { return Messages{}; });

    chain.handleReply(messages({"next"}));

    EXPECT_EQ(kChain, handled);
}

TEST_F(ReplyHandlingTest, ActionIsHandledLikeTheMessageThatItStandsFor) {
    replies = {{"a", {"a1"}}, {"error x", {"b"}}};

    handling.handleAction([] { return messages({"a", "a2"}); });
    handling.handleAction([]() -> Messages { throw std::runtime_error("x"); });

    EXPECT_THAT(events, ElementsAre("a", "a1", "a2", "error x", "b"));
}

}  // namespace cagnt1
