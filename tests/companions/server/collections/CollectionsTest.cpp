#include "companions/server/collections/Collections.h"

#include "companions/server/base/Clock.h"
#include "companions/server/base/Sha256.h"
#include "companions/server/collections/CollectorOptions.h"
#include "companions/server/store/SqliteStore.h"
#include "companions/server/store/StoreError.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::server {
namespace {

std::string parameter(const Operation& operation, const char* name) {
    rapidjson::Document document;
    document.Parse(operation.parameters.c_str());
    return document[name].GetString();
}

class CollectionsTest : public testing::Test {
protected:
    CollectionsTest() {
        const AgentToken token = store.agents().addToken("build-7", false, sha256("secret"));
        agent = store.agents().connect({token.id, "host", "uuid-1", "127.0.0.1"}).id;
    }

    NewCollection newCollection() const {
        NewCollection collection;
        collection.agent = agent;
        collection.name = "nightly";
        collection.request.pid = 4711;
        return collection;
    }

    std::vector<Operation> take() { return store.operations().take(agent, 16); }

    CollectionState stateOf(const Collection& collection) {
        return store.collections().find(collection.id).value().state;
    }

    void finish(const Collection& collection, int code) {
        store.operations().finish(agent, collection.start, code, "", outcomeOf(code));
    }

    test::TemporaryDirectory place;
    const SystemClock clock;
    SqliteStore store{place.path() / "kolvan.db", clock};
    const OutputFiles outputs{place.path() / "output"};
    const UploadedFiles uploads{place.path() / "traces"};
    Collections collections{store, outputs, uploads};
    AgentId agent;
};

TEST_F(CollectionsTest, StartTellsTheAgentWhatToDo) {
    const Collection collection = collections.start(newCollection());

    const std::vector<Operation> taken = take();
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ(collection.start, taken.front().id);
    EXPECT_EQ("collector:collection:start", taken.front().messageType);
    EXPECT_EQ(collectorOptions(collection.request), parameter(taken.front(), "options"));
    EXPECT_EQ(0U, parameter(taken.front(), "traceUploadDirectory").find(collection.id.text + '/'));
}

TEST_F(CollectionsTest, RequestThatNoCollectorCanCarryOutLeavesNothing) {
    NewCollection collection = newCollection();
    collection.request.pid.reset();

    EXPECT_THROW(collections.start(collection), std::invalid_argument);
    EXPECT_FALSE(store.collections().find(collection.id));
    EXPECT_TRUE(take().empty());
}

TEST_F(CollectionsTest, UnknownAgentIsNamedAsTheReason) {
    NewCollection collection = newCollection();
    collection.agent = AgentId("nobody");

    try {
        collections.start(collection);
        FAIL() << "nothing was thrown";
    } catch (const StoreError& error) {
        EXPECT_EQ(StoreError::Reason::NotFound, error.reason());
    }
}

TEST_F(CollectionsTest, SecondStartWaitsUntilTheFirstHasEnded) {
    const Collection first = collections.start(newCollection());
    const Collection second = collections.start(newCollection());
    ASSERT_EQ(1U, take().size());
    EXPECT_TRUE(take().empty());

    finish(first, 0);

    const std::vector<Operation> taken = take();
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ(second.start, taken.front().id);
}

TEST_F(CollectionsTest, OtherCommandsPassAStartThatWaits) {
    collections.start(newCollection());
    collections.start(newCollection());
    NewOperation list;
    list.kind = OperationKind::ProcessList;
    list.messageType = "collector:execute";
    store.operations().enqueue(agent, list);

    const std::vector<Operation> taken = take();

    ASSERT_EQ(2U, taken.size());
    EXPECT_EQ(OperationKind::Collection, taken[0].kind);
    EXPECT_EQ(list.id, taken[1].id);
}

TEST_F(CollectionsTest, StartThatWaitsGoesWhenTheAgentHasGivenTheFirstUpByStartingAnew) {
    const Collection first = collections.start(newCollection());
    const Collection second = collections.start(newCollection());
    take();
    const AgentToken token = store.agents().listTokens().front();

    store.agents().connect({token.id, "host", "uuid-2", "127.0.0.1"});

    EXPECT_EQ(CollectionState::Failed, stateOf(first));
    const std::vector<Operation> taken = take();
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ(second.start, taken.front().id);
}

TEST_F(CollectionsTest, RunningOneIsStoppedByItsCollector) {
    const Collection collection = collections.start(newCollection());
    take();
    store.operations().confirm(agent, collection.start);

    EXPECT_EQ(Asked::Yes, collections.stop(collection.id));

    const std::vector<Operation> taken = take();
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ("collector:collection:command", taken.front().messageType);
    EXPECT_EQ("stop", parameter(taken.front(), "command"));
    EXPECT_EQ(CollectionState::Stopping, stateOf(collection));
}

TEST_F(CollectionsTest, RunningOneIsCancelledByItsCollector) {
    const Collection collection = collections.start(newCollection());
    take();
    store.operations().confirm(agent, collection.start);

    EXPECT_EQ(Asked::Yes, collections.cancel(collection.id));

    EXPECT_EQ("cancel", parameter(take().at(0), "command"));
    finish(collection, 5);
    EXPECT_EQ(CollectionState::Cancelled, stateOf(collection));
}

TEST_F(CollectionsTest, OneThatItsAgentHasNotSeenIsCancelledAtOnce) {
    const Collection collection = collections.start(newCollection());

    EXPECT_EQ(Asked::Yes, collections.cancel(collection.id));

    EXPECT_EQ(CollectionState::Cancelled, stateOf(collection));
    EXPECT_TRUE(take().empty());
}

TEST_F(CollectionsTest, WordsReachTheCollectorOfARunningOne) {
    const Collection collection = collections.start(newCollection());
    take();
    EXPECT_EQ(Asked::TooLate, collections.command(collection.id, "status"));
    store.operations().confirm(agent, collection.start);

    EXPECT_EQ(Asked::Yes, collections.command(collection.id, "status"));

    EXPECT_EQ("status", parameter(take().at(0), "command"));
}

TEST_F(CollectionsTest, StartOfWhichNothingWasHeardIsSentAgainOnRequest) {
    const Collection collection = collections.start(newCollection());
    EXPECT_EQ(Asked::TooLate, collections.sendAgain(collection.id));
    const Operation first = take().at(0);

    EXPECT_EQ(Asked::Yes, collections.sendAgain(collection.id));

    const Operation second = take().at(0);
    EXPECT_NE(first.id, second.id);
    EXPECT_EQ(first.parameters, second.parameters);
    store.operations().confirm(agent, second.id);
    EXPECT_EQ(Asked::TooLate, collections.sendAgain(collection.id));
    EXPECT_EQ(Asked::NotFound, collections.sendAgain(CollectionId("nothing")));
}

TEST_F(CollectionsTest, EndedOneIsRemovedWithAllThatItHasLeft) {
    const Collection collection = collections.start(newCollection());
    take();
    outputs.append(collection.start, OutputChannel::Stdout, "output");
    uploads.begin(collection.id, "data.0/a").keep();
    EXPECT_EQ(Asked::TooLate, collections.remove(collection.id));
    finish(collection, 0);

    EXPECT_EQ(Asked::Yes, collections.remove(collection.id));

    EXPECT_FALSE(store.collections().find(collection.id));
    EXPECT_EQ(0U, outputs.size(collection.start, OutputChannel::Stdout));
    EXPECT_FALSE(std::filesystem::exists(uploads.path(collection.id, "")));
    EXPECT_EQ(Asked::NotFound, collections.remove(collection.id));
}

TEST_F(CollectionsTest, UploadFindsItsCollectionByTheDirectoryThatTheAgentWasGiven) {
    const Collection collection = collections.start(newCollection());
    const std::string directory = parameter(take().at(0), "traceUploadDirectory");

    const std::optional<UploadPlace> place =
        collections.placeOf(directory + "/data.0/profile.pb.gz");

    ASSERT_TRUE(place);
    EXPECT_EQ(collection.id, place->collection);
    EXPECT_EQ(collection.agent, place->agent);
    EXPECT_EQ("data.0/profile.pb.gz", place->name);
    EXPECT_EQ("a", collections.placeOf(directory + "/a").value().name);
    EXPECT_FALSE(collections.placeOf(directory));
}

TEST_F(CollectionsTest, UploadWithoutTheSecretFindsNothing) {
    const Collection collection = collections.start(newCollection());
    const std::string directory = parameter(take().at(0), "traceUploadDirectory");
    const std::string& id = collection.id.text;

    for (const std::string& wrong :
         {std::string(), id, id + '/', id + "/data.0", id + "/0123456789abcdef0123456789abcdef",
          directory.substr(0, directory.size() - 1), directory + "0", '/' + directory,
          "x" + directory}) {
        EXPECT_FALSE(collections.placeOf(wrong + "/a")) << wrong;
    }
}

TEST_F(CollectionsTest, EachCollectionHasItsOwnSecret) {
    collections.start(newCollection());
    const std::string first = parameter(take().at(0), "traceUploadDirectory");
    const Collection second = collections.start(newCollection());
    const std::string secret = first.substr(first.find('/'));

    EXPECT_FALSE(collections.placeOf(second.id.text + secret + "/a"));
    EXPECT_TRUE(collections.placeOf(first + "/a"));
}

}  // namespace
}  // namespace kolvan::server
