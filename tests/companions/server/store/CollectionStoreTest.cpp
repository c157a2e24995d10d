#include "companions/server/store/StoreError.h"
#include "tests/companions/server/store/StoreTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <tuple>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::string> namesOf(const Page<Collection>& page) {
    std::vector<std::string> names;
    for (const Collection& collection : page.items) {
        names.push_back(collection.name);
    }
    return names;
}

class CollectionStoreTest : public StoreTest {
protected:
    CollectionStore& collections() { return store->collections(); }

    const Agent agent = addAgent();
};

TEST_F(CollectionStoreTest, EverythingThatWasWantedIsKept) {
    NewCollection wanted;
    wanted.agent = agent.id;
    wanted.name = "slow start";
    wanted.note = "after the upgrade";
    wanted.madeBy = "anna";
    wanted.request = {{}, {"/opt/a b/run", "", "--x=\"1\"\n"}, "wait", 99, 2500ms, false};

    const Collection made = collections().create(wanted, startOfCollection());
    reopen();
    const Collection found = find(made);

    EXPECT_EQ(agent.id, found.agent);
    EXPECT_EQ("slow start", found.name);
    EXPECT_EQ("after the upgrade", found.note);
    EXPECT_EQ("anna", found.madeBy);
    EXPECT_EQ(std::nullopt, found.request.pid);
    EXPECT_EQ(wanted.request.command, found.request.command);
    EXPECT_EQ("wait", found.request.profile);
    EXPECT_EQ(99, found.request.frequency);
    EXPECT_EQ(2500ms, found.request.duration);
    EXPECT_FALSE(found.request.children);
    EXPECT_EQ(CollectionState::Waiting, found.state);
    EXPECT_EQ(clock.utc(), found.made);
    EXPECT_EQ(std::nullopt, found.startTaken);
}

TEST_F(CollectionStoreTest, MakingOneQueuesItsStart) {
    const Collection collection = addCollection(agent.id);

    const auto taken = store->operations().take(agent.id, 10);

    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ(collection.start, taken[0].id);
    EXPECT_EQ(collection.id, taken[0].collection);
    EXPECT_EQ("collector:collection:start", taken[0].messageType);
    EXPECT_EQ(clock.utc(), find(collection).startTaken);
    EXPECT_EQ(std::nullopt, find(collection).startConfirmed);
}

TEST_F(CollectionStoreTest, UnknownAgentCollectsNothing) {
    EXPECT_EQ("There is no such agent", failureOf([&] { addCollection(AgentId("nobody")); }));
    EXPECT_THAT(namesOf(collections().list({}, {})), IsEmpty());
}

TEST_F(CollectionStoreTest, WaysBetweenStates) {
    using enum CollectionState;
    constexpr std::array kAll = {Waiting, Running, Stopping, Done, Failed, Cancelled};
    std::vector<std::tuple<CollectionState, CollectionState>> allowed;
    for (const auto from : kAll) {
        for (const auto to : kAll) {
            if (mayFollow(from, to)) {
                allowed.emplace_back(from, to);
            }
        }
    }

    using Way = std::tuple<CollectionState, CollectionState>;
    EXPECT_THAT(allowed,
                ElementsAre(Way(Waiting, Running), Way(Waiting, Stopping), Way(Waiting, Done),
                            Way(Waiting, Failed), Way(Waiting, Cancelled), Way(Running, Stopping),
                            Way(Running, Done), Way(Running, Failed), Way(Running, Cancelled),
                            Way(Stopping, Done), Way(Stopping, Failed), Way(Stopping, Cancelled)));
}

TEST_F(CollectionStoreTest, RunningOneIsStoppedOnce) {
    const Collection collection = addRunningCollection(agent.id);
    const NewOperation command = collectionCommand();

    EXPECT_EQ(Asked::Yes, collections().stop(collection.id, command));
    EXPECT_EQ(Asked::TooLate, collections().stop(collection.id, collectionCommand()));

    EXPECT_EQ(CollectionState::Stopping, find(collection).state);
    EXPECT_THAT(take(agent.id), ElementsAre(command.id));
}

TEST_F(CollectionStoreTest, WhatDoesNotRunIsNotStopped) {
    const Collection collection = addCollection(agent.id);

    EXPECT_EQ(Asked::TooLate, collections().stop(collection.id, collectionCommand()));
    EXPECT_EQ(Asked::TooLate, collections().command(collection.id, collectionCommand()));
    EXPECT_EQ(Asked::NotFound, collections().stop(CollectionId("none"), collectionCommand()));

    EXPECT_EQ(CollectionState::Waiting, find(collection).state);
    EXPECT_THAT(take(agent.id), ElementsAre(collection.start));
}

TEST_F(CollectionStoreTest, CancellingOneThatWaitsWithdrawsItsStart) {
    const Collection collection = addCollection(agent.id);

    EXPECT_EQ(Asked::Yes, collections().cancel(collection.id, collectionCommand("cancel")));

    EXPECT_EQ(CollectionState::Cancelled, find(collection).state);
    EXPECT_EQ(clock.utc(), find(collection).ended);
    EXPECT_THAT(take(agent.id), IsEmpty());
    EXPECT_EQ(OperationState::Withdrawn, store->operations().find(collection.start)->state);
}

TEST_F(CollectionStoreTest, CancellingOneWhoseStartWasSentAsksItsAgent) {
    const Collection collection = addCollection(agent.id);
    take(agent.id);
    const NewOperation command = collectionCommand("cancel");

    EXPECT_EQ(Asked::Yes, collections().cancel(collection.id, command));

    EXPECT_EQ(CollectionState::Stopping, find(collection).state);
    EXPECT_THAT(take(agent.id), ElementsAre(command.id));
}

TEST_F(CollectionStoreTest, OneThatStopsCanStillBeCancelled) {
    const Collection collection = addRunningCollection(agent.id);
    collections().stop(collection.id, collectionCommand());

    EXPECT_EQ(Asked::Yes, collections().cancel(collection.id, collectionCommand("cancel")));

    EXPECT_EQ(2U, take(agent.id).size());
}

TEST_F(CollectionStoreTest, WhatHasEndedCannotBeCancelled) {
    const Collection collection = addRunningCollection(agent.id);
    finish(collection);

    EXPECT_EQ(Asked::TooLate, collections().cancel(collection.id, collectionCommand("cancel")));

    EXPECT_EQ(CollectionState::Done, find(collection).state);
    EXPECT_THAT(take(agent.id), IsEmpty());
}

TEST_F(CollectionStoreTest, CommandLeavesARunningOneRunning) {
    const Collection collection = addRunningCollection(agent.id);
    const NewOperation command = collectionCommand("status");

    EXPECT_EQ(Asked::Yes, collections().command(collection.id, command));

    EXPECT_EQ(CollectionState::Running, find(collection).state);
    EXPECT_THAT(take(agent.id), ElementsAre(command.id));
}

TEST_F(CollectionStoreTest, NameAndNoteChangeOneByOne) {
    const Collection collection = addCollection(agent.id, "old");

    EXPECT_TRUE(collections().rename(collection.id, "new", {}));
    EXPECT_EQ("new", find(collection).name);
    EXPECT_EQ("", find(collection).note);
    EXPECT_TRUE(collections().rename(collection.id, {}, "seen"));

    EXPECT_EQ("new", find(collection).name);
    EXPECT_EQ("seen", find(collection).note);
    EXPECT_FALSE(collections().rename(CollectionId("none"), "x", {}));
}

TEST_F(CollectionStoreTest, WhatHasEndedIsRemovedWithAllThatBelongsToIt) {
    const Collection collection = addRunningCollection(agent.id);
    collections().beginFile(collection.id, "data/profile.pb.gz");
    store->operations().setOutputSize(collection.start, OutputChannel::Stdout, 5);
    EXPECT_EQ(Asked::TooLate, collections().remove(collection.id));
    finish(collection);

    EXPECT_EQ(Asked::Yes, collections().remove(collection.id));

    EXPECT_FALSE(collections().find(collection.id));
    EXPECT_FALSE(store->operations().find(collection.start));
    EXPECT_THAT(collections().listFiles(collection.id), IsEmpty());
    EXPECT_EQ(0U, store->operations().outputSize(collection.start, OutputChannel::Stdout));
    EXPECT_EQ(Asked::NotFound, collections().remove(collection.id));
}

TEST_F(CollectionStoreTest, FileIsCompleteWhenItsUploadIsWhole) {
    const Collection collection = addCollection(agent.id);
    EXPECT_TRUE(collections().beginFile(collection.id, "b"));
    EXPECT_TRUE(collections().beginFile(collection.id, "a"));
    clock.advance(1s);

    EXPECT_TRUE(collections().completeFile(collection.id, "b", 5'000'000'000));

    const auto files = collections().listFiles(collection.id);
    ASSERT_EQ(2U, files.size());
    EXPECT_EQ("a", files[0].name);
    EXPECT_FALSE(files[0].complete);
    EXPECT_EQ("b", files[1].name);
    EXPECT_TRUE(files[1].complete);
    EXPECT_EQ(5'000'000'000U, files[1].sizeBytes);
    EXPECT_EQ(clock.utc(), files[1].changed);
}

TEST_F(CollectionStoreTest, FileThatComesAgainIsIncompleteAgain) {
    const Collection collection = addCollection(agent.id);
    collections().beginFile(collection.id, "a");
    collections().completeFile(collection.id, "a", 5);

    EXPECT_TRUE(collections().beginFile(collection.id, "a"));

    const auto files = collections().listFiles(collection.id);
    ASSERT_EQ(1U, files.size());
    EXPECT_FALSE(files[0].complete);
    EXPECT_EQ(0U, files[0].sizeBytes);
}

TEST_F(CollectionStoreTest, FilesOfNoCollectionAreNotKept) {
    EXPECT_FALSE(collections().beginFile(CollectionId("none"), "a"));
    EXPECT_FALSE(collections().completeFile(CollectionId("none"), "a", 1));
    EXPECT_FALSE(collections().completeFile(addCollection(agent.id).id, "never begun", 1));
}

TEST_F(CollectionStoreTest, EachFilterSelects) {
    const Agent other = addAgent("other");
    const Collection first = addCollection(agent.id, "First");
    clock.advance(1s);
    const UtcTime middle = clock.utc();
    const Collection second = addCollection(other.id, "second");
    collections().rename(second.id, {}, "like the first");
    finish(second, CollectionState::Failed);
    clock.advance(1s);
    addCollection(agent.id, "third");

    const auto listed = [&](const CollectionFilter& filter) {
        return namesOf(collections().list(filter, {}));
    };
    CollectionFilter byAgent;
    byAgent.agent = agent.id;
    EXPECT_THAT(listed(byAgent), ElementsAre("third", "First"));
    CollectionFilter byState;
    byState.states = {CollectionState::Failed, CollectionState::Done};
    EXPECT_THAT(listed(byState), ElementsAre("second"));
    CollectionFilter byText;
    byText.text = "FIRST";
    EXPECT_THAT(listed(byText), ElementsAre("second", "First"));
    CollectionFilter byMaker;
    byMaker.madeBy = "anna";
    EXPECT_EQ(3U, listed(byMaker).size());
    byMaker.madeBy = "ann";
    EXPECT_THAT(listed(byMaker), IsEmpty());
    CollectionFilter byTime;
    byTime.madeFrom = middle;
    EXPECT_THAT(listed(byTime), ElementsAre("third", "second"));
    byTime.madeUntil = middle + 1s;
    EXPECT_THAT(listed(byTime), ElementsAre("second"));
    byTime.agent = agent.id;
    EXPECT_THAT(listed(byTime), IsEmpty());
}

TEST_F(CollectionStoreTest, CollectionsAreCountedByState) {
    EXPECT_THAT(collections().count(), IsEmpty());
    addCollection(agent.id);
    addCollection(agent.id);
    collections().cancel(addCollection(agent.id).id, collectionCommand());

    EXPECT_THAT(collections().count(), ElementsAre(Pair(CollectionState::Waiting, 2U),
                                                   Pair(CollectionState::Cancelled, 1U)));
}

TEST_F(CollectionStoreTest, PagesNeitherRepeatNorHideWhatOthersAddAndRemove) {
    std::vector<Collection> all;
    for (int number = 1; number <= 5; ++number) {
        all.push_back(addCollection(agent.id, std::to_string(number)));
    }

    const auto first = collections().list({}, {2, ""});
    addCollection(agent.id, "6");
    collections().cancel(all[3].id, collectionCommand());
    collections().remove(all[3].id);
    collections().cancel(all[2].id, collectionCommand());
    collections().remove(all[2].id);
    const auto second = collections().list({}, {2, first.next});

    EXPECT_THAT(namesOf(first), ElementsAre("5", "4"));
    EXPECT_THAT(namesOf(second), ElementsAre("2", "1"));
    EXPECT_EQ("", second.next);
}

TEST_F(CollectionStoreTest, LastPageIsKnownAsSuch) {
    addCollection(agent.id, "1");
    addCollection(agent.id, "2");

    EXPECT_EQ("", collections().list({}, {2, ""}).next);
    EXPECT_NE("", collections().list({}, {1, ""}).next);
    EXPECT_THAT(namesOf(collections().list({}, {5, "not a page's end"})), IsEmpty());
}

TEST_F(CollectionStoreTest, NewOneIsOnNoLaterPageAlthoughTheNewestWereRemoved) {
    std::vector<Collection> all;
    for (int number = 1; number <= 3; ++number) {
        all.push_back(addCollection(agent.id, std::to_string(number)));
    }
    const auto first = collections().list({}, {1, ""});
    for (const std::size_t removed : {2U, 1U}) {
        collections().cancel(all[removed].id, collectionCommand());
        collections().remove(all[removed].id);
    }

    addCollection(agent.id, "4");

    EXPECT_THAT(namesOf(first), ElementsAre("3"));
    EXPECT_THAT(namesOf(collections().list({}, {5, first.next})), ElementsAre("1"));
}

}  // namespace
}  // namespace kolvan::server
