#include "companions/server/store/StoreError.h"
#include "tests/companions/server/store/StoreTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <future>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class OperationStoreTest : public StoreTest {
protected:
    OperationStore& operations() { return store->operations(); }

    const Agent agent = addAgent();
};

TEST_F(OperationStoreTest, CommandsAreTakenInTheirOrder) {
    const Operation first = enqueue(agent.id);
    clock.jump(-1h);
    const Operation second = enqueue(agent.id);

    EXPECT_THAT(take(agent.id), ElementsAre(first.id, second.id));
    EXPECT_THAT(take(agent.id), IsEmpty());
}

TEST_F(OperationStoreTest, CommandIsTakenAsItWasQueued) {
    const Operation queued = enqueue(agent.id, "stop");

    const auto taken = operations().take(agent.id, 1);

    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ(queued.id, taken[0].id);
    EXPECT_EQ("stop", taken[0].messageType);
    EXPECT_EQ(R"({"args":"a b"})", taken[0].parameters);
    EXPECT_EQ(OperationState::Taken, taken[0].state);
    EXPECT_EQ(clock.utc(), taken[0].taken);
}

TEST_F(OperationStoreTest, QueuesOfAgentsAreApart) {
    const Agent other = addAgent("other");
    const Operation operation = enqueue(other.id);

    EXPECT_THAT(take(agent.id), IsEmpty());
    EXPECT_THAT(take(other.id), ElementsAre(operation.id));
}

TEST_F(OperationStoreTest, NoMoreThanWantedIsTaken) {
    const Operation first = enqueue(agent.id);
    const Operation second = enqueue(agent.id);

    EXPECT_THAT(take(agent.id, 0), IsEmpty());
    EXPECT_THAT(take(agent.id, 1), ElementsAre(first.id));
    EXPECT_THAT(take(agent.id, 1), ElementsAre(second.id));
}

TEST_F(OperationStoreTest, UnknownAgentHasNoQueue) {
    EXPECT_EQ("There is no such agent", failureOf([&] { enqueue(AgentId("nobody")); }));
}

TEST_F(OperationStoreTest, WhatIsGivenBackStandsWhereItStood) {
    const Operation first = enqueue(agent.id);
    const Operation second = enqueue(agent.id);
    take(agent.id);
    const Operation third = enqueue(agent.id);

    operations().giveBack(std::array{second.id, first.id});

    EXPECT_THAT(take(agent.id), ElementsAre(first.id, second.id, third.id));
}

TEST_F(OperationStoreTest, NothingPassesAReplyThatMayStillFail) {
    const Operation first = enqueue(agent.id);
    beginReply(agent.id);
    const Operation second = enqueue(agent.id);
    EXPECT_THAT(take(agent.id), IsEmpty());

    operations().giveBack(std::array{first.id});

    EXPECT_THAT(take(agent.id), ElementsAre(first.id, second.id));
}

TEST_F(OperationStoreTest, WhatCameDuringAReplyGoesWhenItIsWritten) {
    const Operation first = enqueue(agent.id);
    beginReply(agent.id);
    const Operation second = enqueue(agent.id);

    operations().markWritten(std::array{first.id});

    EXPECT_THAT(take(agent.id), ElementsAre(second.id));
}

TEST_F(OperationStoreTest, WhatCameDuringAReplyGoesWhenItsAgentSpeaksOfIt) {
    const Operation first = enqueue(agent.id);
    beginReply(agent.id);
    const Operation second = enqueue(agent.id);

    operations().confirm(agent.id, first.id);

    EXPECT_THAT(take(agent.id), ElementsAre(second.id));
}

TEST_F(OperationStoreTest, ReplyOfWhichNothingBecomesKnownHoldsUpForHalfAMinute) {
    enqueue(agent.id);
    beginReply(agent.id);
    const Operation second = enqueue(agent.id);
    clock.advance(30s);
    EXPECT_THAT(take(agent.id), IsEmpty());

    clock.advance(1ms);

    EXPECT_THAT(take(agent.id), ElementsAre(second.id));
}

TEST_F(OperationStoreTest, ReplyOfAServerThatWasKilledHoldsUpNobody) {
    enqueue(agent.id);
    beginReply(agent.id);
    const Operation second = enqueue(agent.id);
    clock.advance(1s);

    reopen();

    EXPECT_THAT(take(agent.id), ElementsAre(second.id));
}

TEST_F(OperationStoreTest, ReplyOfATimeToComeHoldsUpNobody) {
    enqueue(agent.id);
    beginReply(agent.id);
    const Operation second = enqueue(agent.id);

    clock.jump(-1h);

    EXPECT_THAT(take(agent.id), ElementsAre(second.id));
}

TEST_F(OperationStoreTest, ReplyToAnotherAgentHoldsUpNobody) {
    const Agent other = addAgent("other");
    enqueue(other.id);
    beginReply(other.id);
    const Operation operation = enqueue(agent.id);

    EXPECT_THAT(take(agent.id), ElementsAre(operation.id));
}

TEST_F(OperationStoreTest, WhatTheAgentHasSpokenOfIsNotGivenBack) {
    const Operation operation = enqueue(agent.id);
    take(agent.id);
    operations().confirm(agent.id, operation.id);

    operations().giveBack(std::array{operation.id});

    EXPECT_THAT(take(agent.id), IsEmpty());
    EXPECT_EQ(OperationState::Running, find(operation).state);
}

TEST_F(OperationStoreTest, TakenCommandIsNotHandedOutAgainAfterARestart) {
    enqueue(agent.id);
    take(agent.id);

    reopen();

    EXPECT_THAT(take(agent.id), IsEmpty());
}

TEST_F(OperationStoreTest, WaysOfACommandAreDated) {
    const Operation operation = enqueue(agent.id);
    const UtcTime queued = clock.utc();
    clock.advance(1s);
    take(agent.id);
    const UtcTime taken = clock.utc();
    clock.advance(1s);
    operations().markWritten(std::array{operation.id});
    const UtcTime written = clock.utc();
    clock.advance(1s);
    operations().confirm(agent.id, operation.id);
    const UtcTime confirmed = clock.utc();
    clock.advance(1s);
    operations().finish(agent.id, operation.id, 7, "", CollectionState::Done);

    const Operation found = find(operation);

    EXPECT_EQ(queued, found.queued);
    EXPECT_EQ(taken, found.taken);
    EXPECT_EQ(written, found.written);
    EXPECT_EQ(confirmed, found.confirmed);
    EXPECT_EQ(clock.utc(), found.ended);
    EXPECT_EQ(7, found.exitCode);
    EXPECT_EQ("", found.errorMessage);
}

TEST_F(OperationStoreTest, OperationEndsOnce) {
    const Operation operation = enqueue(agent.id);
    take(agent.id);

    EXPECT_TRUE(
        operations().finish(agent.id, operation.id, {}, "refused", CollectionState::Failed));
    EXPECT_FALSE(operations().finish(agent.id, operation.id, 0, "", CollectionState::Done));

    EXPECT_EQ("refused", find(operation).errorMessage);
    EXPECT_EQ(std::nullopt, find(operation).exitCode);
    EXPECT_FALSE(operations().confirm(agent.id, operation.id));
}

TEST_F(OperationStoreTest, AgentSpeaksOfItsOwnOperationsOnly) {
    const Agent other = addAgent("other");
    const Operation operation = enqueue(agent.id);
    take(agent.id);

    EXPECT_FALSE(operations().confirm(other.id, operation.id));
    EXPECT_FALSE(operations().finish(other.id, operation.id, 0, "", CollectionState::Done));
    EXPECT_FALSE(operations().confirm(agent.id, OperationId("none")));

    EXPECT_EQ(OperationState::Taken, find(operation).state);
}

TEST_F(OperationStoreTest, WordOfACommandThatWasGivenBackKeepsItFromBeingSentTwice) {
    const Operation operation = enqueue(agent.id);
    take(agent.id);
    operations().giveBack(std::array{operation.id});

    EXPECT_TRUE(operations().confirm(agent.id, operation.id));

    EXPECT_THAT(take(agent.id), IsEmpty());
}

TEST_F(OperationStoreTest, FirstWordMakesAWaitingCollectionARunningOne) {
    const Collection collection = addCollection(agent.id);
    take(agent.id);
    EXPECT_EQ(CollectionState::Waiting, find(collection).state);

    EXPECT_TRUE(operations().confirm(agent.id, collection.start));
    EXPECT_TRUE(operations().confirm(agent.id, collection.start));

    EXPECT_EQ(CollectionState::Running, find(collection).state);
    EXPECT_EQ(clock.utc(), find(collection).startConfirmed);
}

TEST_F(OperationStoreTest, EndOfItsStartIsTheEndOfACollection) {
    const Collection collection = addCollection(agent.id);
    take(agent.id);
    clock.advance(1min);

    operations().finish(agent.id, collection.start, 6, "disk full", CollectionState::Failed);

    const Collection found = find(collection);
    EXPECT_EQ(CollectionState::Failed, found.state);
    EXPECT_EQ(6, found.exitCode);
    EXPECT_EQ("disk full", found.errorMessage);
    EXPECT_EQ(clock.utc(), found.ended);
}

TEST_F(OperationStoreTest, EndOfACommandDoesNotEndItsCollection) {
    const Collection collection = addRunningCollection(agent.id);
    const NewOperation command = collectionCommand();
    store->collections().stop(collection.id, command);
    take(agent.id);

    operations().finish(agent.id, command.id, 0, "", CollectionState::Done);

    EXPECT_EQ(CollectionState::Stopping, find(collection).state);
}

TEST_F(OperationStoreTest, EndOfACollectionWithdrawsItsCommands) {
    const Collection collection = addRunningCollection(agent.id);
    store->collections().stop(collection.id, collectionCommand());

    finish(collection);

    EXPECT_EQ(CollectionState::Done, find(collection).state);
    EXPECT_THAT(take(agent.id), IsEmpty());
}

TEST_F(OperationStoreTest, WhatIsSentAgainHasANewId) {
    const Operation operation = enqueue(agent.id);
    take(agent.id);

    const auto again = operations().sendAgain(operation.id);

    ASSERT_TRUE(again);
    EXPECT_NE(operation.id, again->id);
    EXPECT_EQ(operation.messageType, again->messageType);
    EXPECT_EQ(operation.parameters, again->parameters);
    EXPECT_EQ(OperationState::Abandoned, find(operation).state);
    EXPECT_THAT(take(agent.id), ElementsAre(again->id));
}

TEST_F(OperationStoreTest, OnlyWhatWasTakenAndNotHeardOfIsSentAgain) {
    const Operation queued = enqueue(agent.id);
    EXPECT_FALSE(operations().sendAgain(queued.id));
    take(agent.id);
    operations().confirm(agent.id, queued.id);

    EXPECT_FALSE(operations().sendAgain(queued.id));
    EXPECT_FALSE(operations().sendAgain(OperationId("none")));

    EXPECT_THAT(take(agent.id), IsEmpty());
}

TEST_F(OperationStoreTest, StartThatIsSentAgainCarriesTheCollectionOut) {
    const Collection collection = addCollection(agent.id);
    take(agent.id);
    const auto again = operations().sendAgain(collection.start);
    take(agent.id);

    operations().confirm(agent.id, again->id);

    EXPECT_EQ(again->id, find(collection).start);
    EXPECT_EQ(CollectionState::Running, find(collection).state);
    EXPECT_FALSE(operations().confirm(agent.id, collection.start));
}

TEST_F(OperationStoreTest, FirstSendingThatSpeaksFirstCarriesTheCollectionOut) {
    const Collection collection = addCollection(agent.id);
    take(agent.id);
    const auto again = operations().sendAgain(collection.start);
    take(agent.id);

    EXPECT_TRUE(operations().confirm(agent.id, collection.start));
    operations().finish(agent.id, again->id, {}, "Collection is already running",
                        CollectionState::Failed);

    EXPECT_EQ(collection.start, find(collection).start);
    EXPECT_EQ(CollectionState::Running, find(collection).state);
    finish(collection);
    EXPECT_EQ(CollectionState::Done, find(collection).state);
}

TEST_F(OperationStoreTest, AbandonedCollectionIsNotTakenUpAgain) {
    const Collection collection = addCollection(agent.id);
    take(agent.id);
    operations().abandon(agent.id, "The agent has gone");

    EXPECT_FALSE(operations().confirm(agent.id, collection.start));

    EXPECT_EQ(CollectionState::Failed, find(collection).state);
    EXPECT_EQ("The agent has gone", find(collection).errorMessage);
}

TEST_F(OperationStoreTest, OpenOnesAreListedOldestFirst) {
    const Operation ended = enqueue(agent.id);
    const Operation running = enqueue(agent.id);
    take(agent.id);
    operations().finish(agent.id, ended.id, 0, "", CollectionState::Done);
    operations().confirm(agent.id, running.id);
    const Operation queued = enqueue(agent.id);

    const auto open = operations().listOpen(agent.id);

    ASSERT_EQ(2U, open.size());
    EXPECT_EQ(running.id, open[0].id);
    EXPECT_EQ(queued.id, open[1].id);
}

TEST_F(OperationStoreTest, LatestOfAKindIsFound) {
    EXPECT_FALSE(operations().findLatest(agent.id, OperationKind::ProcessList));
    NewOperation list{OperationId::make(), OperationKind::ProcessList, "collector:execute", "{}"};
    operations().enqueue(agent.id, list);
    list.id = OperationId::make();
    operations().enqueue(agent.id, list);
    enqueue(agent.id);

    EXPECT_EQ(list.id, operations().findLatest(agent.id, OperationKind::ProcessList)->id);
}

TEST_F(OperationStoreTest, LatestThatEndedWellIsFound) {
    std::vector<OperationId> ids;
    for (int count = 0; count < 5; ++count) {
        ids.push_back(enqueue(agent.id).id);
    }
    const auto latest = [&] {
        return operations().findLatestDone(agent.id, OperationKind::Execute);
    };
    take(agent.id);
    EXPECT_FALSE(latest());

    operations().finish(agent.id, ids[1], 0, "", CollectionState::Done);
    operations().finish(agent.id, ids[0], 0, "", CollectionState::Done);
    operations().finish(agent.id, ids[2], 1, "", CollectionState::Done);
    operations().finish(agent.id, ids[3], {}, "lost", CollectionState::Done);

    ASSERT_TRUE(latest());
    EXPECT_EQ(ids[1], latest()->id);
    EXPECT_FALSE(operations().findLatestDone(agent.id, OperationKind::ProcessList));
}

TEST_F(OperationStoreTest, OldEndedOnesAreForgotten) {
    std::vector<OperationId> ids;
    for (int count = 0; count < 4; ++count) {
        ids.push_back(enqueue(agent.id).id);
    }
    take(agent.id);
    for (const int ended : {0, 1, 3}) {
        operations().finish(agent.id, ids[static_cast<std::size_t>(ended)], 0, "",
                            CollectionState::Done);
    }
    const Collection collection = addRunningCollection(agent.id);
    finish(collection);

    EXPECT_THAT(operations().removeEnded(1), testing::UnorderedElementsAre(ids[0], ids[1]));
    EXPECT_THAT(operations().removeEnded(1), IsEmpty());

    EXPECT_FALSE(operations().find(ids[0]));
    EXPECT_TRUE(operations().find(ids[2]));
    EXPECT_TRUE(operations().find(ids[3]));
    EXPECT_TRUE(operations().find(collection.start));
}

TEST_F(OperationStoreTest, OutputSizesAreKeptByChannel) {
    const Operation operation = enqueue(agent.id);

    operations().setOutputSize(operation.id, OutputChannel::Stdout, 10);
    operations().setOutputSize(operation.id, OutputChannel::Stdout, 5'000'000'000);
    operations().setOutputSize(operation.id, OutputChannel::Feedback, 3);
    operations().setOutputSize(OperationId("none"), OutputChannel::Stdout, 1);

    EXPECT_EQ(5'000'000'000U, operations().outputSize(operation.id, OutputChannel::Stdout));
    EXPECT_EQ(0U, operations().outputSize(operation.id, OutputChannel::Stderr));
    EXPECT_EQ(3U, operations().outputSize(operation.id, OutputChannel::Feedback));
    EXPECT_EQ(0U, operations().outputSize(OperationId("none"), OutputChannel::Stdout));
}

TEST_F(OperationStoreTest, OfTwoPollsAtOnceOneIsGivenCommands) {
    for (int round = 0; round < 20; ++round) {
        const Agent asking = addAgent("agent " + std::to_string(round));
        const Operation first = enqueue(asking.id);
        enqueue(asking.id);
        const auto takeOne = [&] { return beginReply(asking.id, 1); };

        auto other = std::async(std::launch::async, takeOne);
        std::vector<OperationId> taken = takeOne();
        const std::vector<OperationId> takenByOther = other.get();

        taken.insert(taken.end(), takenByOther.begin(), takenByOther.end());
        EXPECT_THAT(taken, ElementsAre(first.id));
    }
}

TEST_F(OperationStoreTest, NoTwoPollsTakeTheSameCommand) {
    constexpr int kCommands = 100;
    for (int count = 0; count < kCommands; ++count) {
        enqueue(agent.id);
    }
    const auto takeAll = [&] {
        std::vector<OperationId> all;
        for (auto some = take(agent.id, 3); !some.empty(); some = take(agent.id, 3)) {
            all.insert(all.end(), some.begin(), some.end());
        }
        return all;
    };

    auto other = std::async(std::launch::async, takeAll);
    std::vector<OperationId> taken = takeAll();
    const std::vector<OperationId> takenByOther = other.get();
    taken.insert(taken.end(), takenByOther.begin(), takenByOther.end());

    EXPECT_EQ(kCommands, std::ssize(taken));
    EXPECT_EQ(kCommands, std::ssize(std::set<OperationId>(taken.begin(), taken.end())));
}

}  // namespace
}  // namespace kolvan::server
