#include "tests/companions/server/store/StoreTest.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace kolvan::server {
namespace {

class WakeUpsTest : public StoreTest {
protected:
    /// Whether `action` wakes those who wait for commands of the agent.
    bool wakesAgent(const AgentId& agent, const std::function<void()>& action) {
        bool woken = false;
        const auto subscription = store->wakeUps().onCommands(agent, [&] { woken = true; });
        action();
        return woken;
    }

    bool wakesCollection(const Collection& collection, const std::function<void()>& action) {
        bool woken = false;
        const auto subscription =
            store->wakeUps().onCollection(collection.id, [&] { woken = true; });
        action();
        return woken;
    }

    bool wakesForEndOfAccess(const std::function<void()>& action) {
        bool woken = false;
        const auto subscription = store->wakeUps().onEndOfAccess([&] { woken = true; });
        action();
        return woken;
    }
};

TEST_F(WakeUpsTest, CommandWakesItsAgentAlone) {
    const Agent one = addAgent("one");
    const Agent two = addAgent("two");

    EXPECT_TRUE(wakesAgent(one.id, [&] { enqueue(one.id); }));
    EXPECT_FALSE(wakesAgent(one.id, [&] { enqueue(two.id); }));
}

TEST_F(WakeUpsTest, AgentIsWokenByAllThatQueuesOrEndsItsRight) {
    const AgentToken token = addToken("agent");
    const Agent agent = connect(token);
    OperationStore& operations = store->operations();
    Collection collection;

    EXPECT_TRUE(wakesAgent(agent.id, [&] { collection = addCollection(agent.id); }));
    const auto taken = take(agent.id);
    EXPECT_TRUE(wakesAgent(agent.id, [&] { operations.markWritten(taken); }));
    EXPECT_TRUE(wakesAgent(agent.id, [&] { operations.giveBack(taken); }));
    take(agent.id);
    EXPECT_TRUE(wakesAgent(agent.id, [&] { operations.sendAgain(collection.start); }));
    take(agent.id);
    EXPECT_TRUE(wakesAgent(
        agent.id, [&] { store->collections().cancel(collection.id, collectionCommand()); }));
    EXPECT_TRUE(wakesAgent(agent.id, [&] { store->agents().leave(agent.id, agent.uuid); }));
    EXPECT_TRUE(wakesAgent(agent.id, [&] { store->agents().revokeToken(token.id); }));
}

TEST_F(WakeUpsTest, CollectionWakesThoseWhoWatchIt) {
    const Agent agent = addAgent();
    const Collection collection = addCollection(agent.id);
    OperationStore& operations = store->operations();
    CollectionStore& collections = store->collections();

    EXPECT_TRUE(wakesCollection(collection, [&] { take(agent.id); }));
    EXPECT_TRUE(
        wakesCollection(collection, [&] { operations.confirm(agent.id, collection.start); }));
    EXPECT_TRUE(wakesCollection(
        collection, [&] { operations.setOutputSize(collection.start, OutputChannel::Stdout, 1); }));
    EXPECT_TRUE(wakesCollection(collection, [&] { collections.rename(collection.id, "x", {}); }));
    EXPECT_TRUE(wakesCollection(collection, [&] { collections.beginFile(collection.id, "a"); }));
    EXPECT_TRUE(
        wakesCollection(collection, [&] { collections.completeFile(collection.id, "a", 1); }));
    EXPECT_TRUE(
        wakesCollection(collection, [&] { collections.stop(collection.id, collectionCommand()); }));
    EXPECT_TRUE(wakesCollection(collection, [&] { finish(collection); }));
    EXPECT_TRUE(wakesCollection(collection, [&] { collections.remove(collection.id); }));
}

TEST_F(WakeUpsTest, EndOfASessionOrTokenWakesThoseWhoseAccessItMayHaveBeen) {
    AccountStore& accounts = store->accounts();
    const User boss = accounts.addUser("boss", Role::Administrator, "");
    const User anna = accounts.addUser("anna", Role::Engineer, "");
    const Sha256 cookie = sha256("cookie");
    accounts.addSession({cookie, anna.id, "", "", clock.utc(), clock.utc()}, "");
    const ApiToken token = accounts.addToken("ci", Role::Viewer, "boss", sha256("token"));

    EXPECT_TRUE(wakesForEndOfAccess([&] { accounts.removeSession(cookie); }));
    EXPECT_TRUE(wakesForEndOfAccess([&] { accounts.removeOldSessions(clock.utc(), {}); }));
    EXPECT_TRUE(wakesForEndOfAccess([&] { accounts.changeUser(anna.id, Role::Viewer, {}); }));
    EXPECT_TRUE(wakesForEndOfAccess([&] { accounts.replacePassword(anna.id, "", "new"); }));
    EXPECT_TRUE(wakesForEndOfAccess([&] { accounts.removeUser(anna.id); }));
    EXPECT_TRUE(wakesForEndOfAccess([&] { accounts.revokeToken(token.id); }));
    const AgentToken ofAgent = addToken("agent");
    EXPECT_TRUE(wakesForEndOfAccess([&] { store->agents().revokeToken(ofAgent.id); }));
    EXPECT_FALSE(wakesForEndOfAccess([&] { accounts.rehashPassword(boss.id, "", "new"); }));
}

TEST_F(WakeUpsTest, LossOfTheAgentWakesThoseWhoWatchItsCollections) {
    const Agent agent = addAgent();
    const Collection collection = addRunningCollection(agent.id);

    EXPECT_TRUE(
        wakesCollection(collection, [&] { store->operations().abandon(agent.id, "gone"); }));
}

TEST_F(WakeUpsTest, ChangeIsVisibleToWhoeverIsWoken) {
    const Agent agent = addAgent();
    std::promise<void> woken;
    const auto subscription = store->wakeUps().onCommands(agent.id, [&] { woken.set_value(); });
    auto taken = std::async(std::launch::async, [&] {
        woken.get_future().wait();
        return beginReply(agent.id);
    });

    const Operation operation = enqueue(agent.id);

    EXPECT_EQ(std::vector{operation.id}, taken.get());
}

TEST_F(WakeUpsTest, EachOfSeveralIsWoken) {
    const Agent agent = addAgent();
    int woken = 0;
    const auto first = store->wakeUps().onCommands(agent.id, [&] { ++woken; });
    const auto second = store->wakeUps().onCommands(agent.id, [&] { ++woken; });

    enqueue(agent.id);

    EXPECT_EQ(2, woken);
}

TEST_F(WakeUpsTest, EndedSubscriptionIsNotCalled) {
    const Agent agent = addAgent();
    int woken = 0;
    auto subscription = store->wakeUps().onCommands(agent.id, [&] { ++woken; });

    subscription.reset();
    enqueue(agent.id);

    EXPECT_EQ(0, woken);
}

TEST_F(WakeUpsTest, EndOfASubscriptionWaitsForItsCall) {
    const Agent agent = addAgent();
    std::promise<void> called;
    std::promise<void> ending;
    std::atomic<bool> callEnded = false;
    auto subscription = store->wakeUps().onCommands(agent.id, [&] {
        called.set_value();
        ending.get_future().wait();
        callEnded = true;
    });
    auto queueing = std::async(std::launch::async, [&] { enqueue(agent.id); });
    called.get_future().wait();

    ending.set_value();
    subscription.reset();

    EXPECT_TRUE(callEnded);
}

TEST_F(WakeUpsTest, SubscriptionMayOutliveTheStore) {
    auto subscription = store->wakeUps().onCommands(AgentId("agent"), [] {});

    store.reset();
    subscription.reset();
}

TEST_F(WakeUpsTest, SubscriptionsComeAndGoWhileOthersAreWoken) {
    const Agent agent = addAgent();
    std::atomic<bool> done = false;
    std::thread waking([&] {
        while (!done) {
            store->lookForOutsideChanges();
            store->operations().giveBack(std::array{OperationId("none")});
            store->collections().rename(CollectionId("none"), "x", {});
        }
    });
    for (int count = 0; count < 2000; ++count) {
        // Would be reported by the sanitizers when it is written after its end.
        int woken = 0;
        const auto subscription =
            store->wakeUps().onCollection(CollectionId("none"), [&] { ++woken; });
    }

    done = true;
    waking.join();
}

}  // namespace
}  // namespace kolvan::server
