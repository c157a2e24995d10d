#include "companions/server/serve/Housekeeping.h"

#include "companions/server/accounts/Passwords.h"
#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/support/SetClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;

class HousekeepingTest : public testing::Test {
protected:
    void tidyUp() { server::tidyUp(store, logins, outputs); }

    AgentId addAgent(const std::string& name) {
        const AgentToken token = store.agents().addToken(name, false, sha256(name));
        return store.agents().connect({token.id, "host", "uuid of " + name, "192.0.2.1"}).id;
    }

    OperationId listProcesses(const AgentId& agent, const std::string& answer) {
        NewOperation operation;
        operation.kind = OperationKind::ProcessList;
        operation.messageType = "collector:execute";
        store.operations().enqueue(agent, operation);
        store.operations().take(agent, 10);
        outputs.append(operation.id, OutputChannel::Stdout, answer);
        store.operations().finish(agent, operation.id, 0, "", CollectionState::Done);
        return operation.id;
    }

    bool isKept(const OperationId& operation) {
        const bool known = store.operations().find(operation).has_value();
        EXPECT_EQ(known, std::filesystem::exists(
                             outputs.path(operation, OutputChannel::Stdout).parent_path()));
        return known;
    }

    const test::TemporaryDirectory place;
    test::SetClock clock;
    SqliteStore store{place.entry("kolvan.db"), clock};
    const OutputFiles outputs{place.path() / "output"};
    const Passwords passwords{Passwords::Cost{1, 8192}};
    RefusalLog refusals{store.audit(), clock};
    Logins logins{store, clock, passwords, refusals};
};

TEST_F(HousekeepingTest, EightLatestListsOfProcessesOfEachAgentAreKeptWithTheirOutput) {
    const AgentId one = addAgent("one");
    const AgentId two = addAgent("two");
    std::vector<OperationId> lists;
    for (int count = 0; count < 10; ++count) {
        lists.push_back(listProcesses(one, "[]"));
    }
    const OperationId ofTwo = listProcesses(two, "[]");

    tidyUp();

    EXPECT_FALSE(isKept(lists[0]));
    EXPECT_FALSE(isKept(lists[1]));
    EXPECT_TRUE(isKept(lists[2]));
    EXPECT_TRUE(isKept(lists[9]));
    EXPECT_TRUE(isKept(ofTwo));
}

TEST_F(HousekeepingTest, CollectionsAreKept) {
    const AgentId agent = addAgent("agent");
    std::vector<Collection> collections;
    for (int count = 0; count < 4; ++count) {
        NewCollection collection;
        collection.agent = agent;
        collection.request.pid = 1;
        NewOperation start;
        start.kind = OperationKind::Collection;
        start.messageType = "collector:collection:start";
        collections.push_back(store.collections().create(collection, start));
        store.operations().take(agent, 10);
        outputs.append(start.id, OutputChannel::Stdout, "text");
        store.operations().finish(agent, start.id, 0, "", CollectionState::Done);
    }

    tidyUp();

    for (const Collection& collection : collections) {
        EXPECT_TRUE(isKept(collection.start));
    }
}

TEST_F(HousekeepingTest, SessionsThatHaveEndedAreRemovedAndOthersAreNot) {
    const User user = store.accounts().addUser("ada", Role::Viewer, "hash");
    const auto addSession = [&](const std::string& name) {
        store.accounts().addSession(
            {sha256(name), user.id, "", "192.0.2.1", clock.utc(), clock.utc()}, "hash");
    };
    addSession("old");
    clock.advance(Logins::kLongestIdle + 1ms);
    addSession("new");

    tidyUp();

    EXPECT_FALSE(store.accounts().findSession(sha256("old")));
    EXPECT_TRUE(store.accounts().findSession(sha256("new")));
}

}  // namespace
}  // namespace kolvan::server
