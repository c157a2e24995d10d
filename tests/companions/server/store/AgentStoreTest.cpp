#include "companions/server/store/StoreError.h"
#include "tests/companions/server/store/StoreTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::string> namesOf(const Page<Agent>& page) {
    std::vector<std::string> names;
    for (const Agent& agent : page.items) {
        names.push_back(agent.name);
    }
    return names;
}

class AgentStoreTest : public StoreTest {
protected:
    AgentStore& agents() { return store->agents(); }
};

TEST_F(AgentStoreTest, TokenIsFoundByItsHash) {
    const AgentToken token = addToken("build machine");

    const auto found = agents().findToken(sha256("kat_build machine"));

    ASSERT_TRUE(found);
    EXPECT_EQ(token.id, found->id);
    EXPECT_EQ("build machine", found->name);
    EXPECT_FALSE(found->shared);
    EXPECT_EQ(clock.utc(), found->made);
    EXPECT_FALSE(found->revoked);
    EXPECT_FALSE(agents().findToken(sha256("kat_another")));
}

TEST_F(AgentStoreTest, NameOfATokenInUseIsRefused) {
    addToken("twice");

    EXPECT_EQ("There is an agent token with the name twice",
              failureOf([&] { agents().addToken("twice", true, sha256("another")); }));
    EXPECT_EQ(1U, agents().listTokens().size());
}

TEST_F(AgentStoreTest, RevokedTokenIsListedAndOpensNothing) {
    const AgentToken token = addToken("lost laptop");
    const Agent agent = connect(token);
    EXPECT_TRUE(agents().hasValidToken(agent.id));
    clock.advance(1min);

    EXPECT_TRUE(agents().revokeToken(token.id));

    EXPECT_FALSE(agents().findToken(token.hash));
    EXPECT_FALSE(agents().hasValidToken(agent.id));
    ASSERT_EQ(1U, agents().listTokens().size());
    EXPECT_EQ(clock.utc(), agents().listTokens()[0].revoked);
    EXPECT_EQ("There is no such agent token", failureOf([&] { connect(token); }));
    EXPECT_FALSE(agents().revokeToken(token.id));
}

TEST_F(AgentStoreTest, AgentIsTheSameOneAfterARestart) {
    const AgentToken token = addToken("web 1");
    const Agent before = connect(token, "start 1", "old name");
    clock.advance(1h);

    const Agent after = agents().connect({token.id, "new name", "start 2", "192.0.2.9"});

    EXPECT_EQ(before.id, after.id);
    EXPECT_EQ("web 1", after.name);
    EXPECT_EQ("new name", after.hostName);
    EXPECT_EQ("start 2", after.uuid);
    EXPECT_EQ("192.0.2.9", after.address);
    EXPECT_EQ(before.firstSeen, after.firstSeen);
    EXPECT_EQ(clock.utc(), after.lastSeen);
    EXPECT_EQ(AgentPresence::Connected, after.presence);
}

TEST_F(AgentStoreTest, AgentIsTheSameOneWithANewTokenOfTheSameName) {
    const AgentToken token = addToken("web 1");
    const Agent before = connect(token);
    agents().revokeToken(token.id);

    const Agent after = connect(agents().addToken("web 1", false, sha256("another")), "start 2");

    EXPECT_EQ(before.id, after.id);
    EXPECT_TRUE(agents().hasValidToken(after.id));
}

TEST_F(AgentStoreTest, HostNamesTellAgentsOfASharedTokenApart) {
    const AgentToken token = addToken("all build machines", true);

    const Agent one = connect(token, "start 1", "one");
    const Agent two = connect(token, "start 2", "two");
    const Agent oneAgain = connect(token, "start 3", "one");

    EXPECT_NE(one.id, two.id);
    EXPECT_EQ(one.id, oneAgain.id);
    EXPECT_EQ("one", one.name);
}

TEST_F(AgentStoreTest, SharedTokenLeadsToNoAgentWithATokenOfItsOwn) {
    const Agent own = connect(addToken("own"), "start 1", "host");

    const Agent shared = connect(addToken("shared", true), "start 2", "host");

    EXPECT_NE(own.id, shared.id);
}

TEST_F(AgentStoreTest, ANewStartGivesUpWhatTheOldOneHadTaken) {
    const AgentToken token = addToken("web 1");
    const Agent agent = connect(token);
    const Collection running = addRunningCollection(agent.id);
    const Operation taken = enqueue(agent.id);
    take(agent.id);
    const Operation queued = enqueue(agent.id);

    connect(token, "start 2");

    EXPECT_EQ(CollectionState::Failed, find(running).state);
    EXPECT_EQ("The agent has started anew", find(running).errorMessage);
    EXPECT_EQ(OperationState::Abandoned, find(taken).state);
    EXPECT_THAT(take(agent.id), ElementsAre(queued.id));
}

TEST_F(AgentStoreTest, TheSameStartConnectingAgainGivesUpNothing) {
    const AgentToken token = addToken("web 1");
    const Agent agent = connect(token);
    const Collection running = addRunningCollection(agent.id);

    connect(token);

    EXPECT_EQ(CollectionState::Running, find(running).state);
}

TEST_F(AgentStoreTest, SeveralAreSeenAtOnce) {
    const Agent one = addAgent("one");
    const Agent two = addAgent("two");
    const Agent three = addAgent("three");
    clock.advance(20s);

    agents().noteSeen(std::array{one.id, AgentId("nobody"), three.id});

    EXPECT_EQ(clock.utc(), agents().find(one.id)->lastSeen);
    EXPECT_EQ(two.lastSeen, agents().find(two.id)->lastSeen);
    EXPECT_EQ(clock.utc(), agents().find(three.id)->lastSeen);
}

TEST_F(AgentStoreTest, LostOneThatIsSeenIsConnectedAgain) {
    const Agent agent = addAgent("lost");
    const Agent gone = addAgent("gone");
    agents().markLost(agent.id, agent.lastSeen);
    agents().leave(gone.id, gone.uuid);

    agents().noteSeen(std::array{agent.id, gone.id});

    EXPECT_EQ(AgentPresence::Connected, agents().find(agent.id)->presence);
    EXPECT_EQ(AgentPresence::Left, agents().find(gone.id)->presence);
}

TEST_F(AgentStoreTest, OnlyAConnectedOneThatWasNotSeenMeanwhileIsLost) {
    const Agent lost = addAgent("lost");
    const Agent seen = addAgent("seen");
    const Agent left = addAgent("left");
    agents().leave(left.id, left.uuid);
    clock.advance(1s);
    agents().noteSeen(std::array{seen.id});

    for (const Agent& agent : {lost, seen, left}) {
        agents().markLost(agent.id, agent.lastSeen);
    }

    EXPECT_EQ(AgentPresence::Lost, agents().find(lost.id)->presence);
    EXPECT_EQ(AgentPresence::Connected, agents().find(seen.id)->presence);
    EXPECT_EQ(AgentPresence::Left, agents().find(left.id)->presence);
}

TEST_F(AgentStoreTest, PresenceAndVersionAreKept) {
    const Agent agent = addAgent();

    agents().leave(agent.id, agent.uuid);
    agents().setCollectorVersion(agent.id, "build 612345");

    EXPECT_EQ(AgentPresence::Left, agents().find(agent.id)->presence);
    EXPECT_EQ("build 612345", agents().find(agent.id)->collectorVersion);
}

TEST_F(AgentStoreTest, FarewellOfAnEarlierStartChangesNothing) {
    const AgentToken token = addToken("agent");
    connect(token, "start 1");
    const Agent agent = connect(token, "start 2");

    agents().leave(agent.id, "start 1");

    EXPECT_EQ(AgentPresence::Connected, agents().find(agent.id)->presence);
    EXPECT_EQ(Standing::Trusted, agents().standing(agent.id, "start 2"));
}

TEST_F(AgentStoreTest, StandingIsThatOfAProcess) {
    const AgentToken token = addToken("agent");
    const Agent agent = connect(token, "start 1");
    EXPECT_EQ(Standing::Trusted, agents().standing(agent.id, "start 1"));

    agents().leave(agent.id, "start 1");
    EXPECT_EQ(Standing::Left, agents().standing(agent.id, "start 1"));
    EXPECT_EQ(Standing::Trusted, agents().standing(agent.id, "start 0"));

    connect(token, "start 1");
    EXPECT_EQ(Standing::Trusted, agents().standing(agent.id, "start 1"));

    agents().revokeToken(token.id);
    EXPECT_EQ(Standing::Revoked, agents().standing(agent.id, "start 1"));
    EXPECT_EQ(Standing::Revoked, agents().standing(AgentId("none"), "start 1"));
}

TEST_F(AgentStoreTest, ListIsFilteredByPresenceAndText) {
    const AgentToken shared = addToken("shared", true);
    connect(shared, "1", "Build-One");
    connect(shared, "2", "build-two");
    const Agent web = connect(shared, "3", "web");
    agents().markLost(web.id, web.lastSeen);

    EXPECT_THAT(namesOf(agents().list({{}, "BUILD"}, {})), ElementsAre("build-two", "Build-One"));
    EXPECT_THAT(namesOf(agents().list({AgentPresence::Lost, ""}, {})), ElementsAre("web"));
    EXPECT_THAT(namesOf(agents().list({AgentPresence::Lost, "build"}, {})), ElementsAre());
    EXPECT_THAT(namesOf(agents().list({{}, "%"}, {})), ElementsAre());
}

TEST_F(AgentStoreTest, AgentsAreCountedByPresence) {
    EXPECT_THAT(store->agents().count(), IsEmpty());
    addAgent("one");
    addAgent("two");
    const Agent three = addAgent("three");
    store->agents().leave(three.id, three.uuid);

    EXPECT_THAT(store->agents().count(),
                ElementsAre(Pair(AgentPresence::Connected, 2U), Pair(AgentPresence::Left, 1U)));
}

TEST_F(AgentStoreTest, OrderIsThatOfComingWhateverTheClockSays) {
    const AgentToken shared = addToken("shared", true);
    connect(shared, "1", "first");
    clock.jump(-24h);
    connect(shared, "2", "second");

    EXPECT_THAT(namesOf(agents().list({}, {})), ElementsAre("second", "first"));
}

TEST_F(AgentStoreTest, NamesMayBeAnyText) {
    const std::string name = "Ü'\"; DROP TABLE agents;--\n";

    const Agent agent = addAgent(name);

    EXPECT_EQ(name, agents().find(agent.id)->name);
}

}  // namespace
}  // namespace kolvan::server
