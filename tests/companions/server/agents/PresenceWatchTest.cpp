#include "companions/server/agents/PresenceWatch.h"

#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/support/SetClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>

namespace kolvan::server::agents {
namespace {

using namespace std::chrono_literals;

class PresenceWatchTest : public testing::Test {
protected:
    AgentId addAgent(const std::string& name) {
        const AgentToken token = store.agents().addToken(name, false, sha256(name));
        return store.agents().connect({token.id, "host", "uuid of " + name, "192.0.2.1"}).id;
    }

    AgentPresence presenceOf(const AgentId& agent) {
        return store.agents().find(agent).value().presence;
    }

    const test::TemporaryDirectory place;
    test::SetClock clock;
    SqliteStore store{place.path() / "kolvan.db", clock};
    std::optional<PresenceWatch> watch{std::in_place, store.agents(), clock};
};

TEST_F(PresenceWatchTest, AgentThatIsSilentForLongIsLostAndOthersAreNot) {
    const AgentId silent = addAgent("silent");
    const AgentId alive = addAgent("alive");
    watch->look();

    clock.advance(PresenceWatch::kPatience - 1ms);
    watch->look();
    EXPECT_EQ(AgentPresence::Connected, presenceOf(silent));

    store.agents().noteSeen(std::array{alive});
    clock.advance(1ms);
    watch->look();
    EXPECT_EQ(AgentPresence::Lost, presenceOf(silent));
    EXPECT_EQ(AgentPresence::Connected, presenceOf(alive));
}

TEST_F(PresenceWatchTest, LostAgentThatIsHeardAgainHasTheWholePatience) {
    const AgentId agent = addAgent("agent");
    watch->look();
    clock.advance(PresenceWatch::kPatience);
    watch->look();
    ASSERT_EQ(AgentPresence::Lost, presenceOf(agent));

    store.agents().noteSeen(std::array{agent});
    watch->look();
    clock.advance(PresenceWatch::kPatience - 1ms);
    watch->look();

    EXPECT_EQ(AgentPresence::Connected, presenceOf(agent));
}

TEST_F(PresenceWatchTest, NobodyIsLostBecauseTheServerWasDownForLong) {
    const AgentId agent = addAgent("agent");
    watch.reset();
    clock.advance(24h);

    watch.emplace(store.agents(), clock);
    watch->look();
    EXPECT_EQ(AgentPresence::Connected, presenceOf(agent));

    clock.advance(PresenceWatch::kPatience);
    watch->look();
    EXPECT_EQ(AgentPresence::Lost, presenceOf(agent));
}

TEST_F(PresenceWatchTest, NobodyIsLostBecauseTheClockWasSet) {
    const AgentId agent = addAgent("agent");
    watch->look();

    for (const auto jump : {24h * 365, -24h * 3650}) {
        clock.jump(jump);
        clock.advance(30s);
        watch->look();
        EXPECT_EQ(AgentPresence::Connected, presenceOf(agent));
    }
}

TEST_F(PresenceWatchTest, AgentIsLostByTimeThatHasPassedWhateverTheClockShows) {
    const AgentId agent = addAgent("agent");
    watch->look();

    clock.jump(-24h * 365);
    clock.advance(PresenceWatch::kPatience);
    watch->look();

    EXPECT_EQ(AgentPresence::Lost, presenceOf(agent));
}

TEST_F(PresenceWatchTest, ManyAgentsAreAllLookedAt) {
    constexpr int kAgents = 1100;  // more than are read at a time
    const AgentToken shared = store.agents().addToken("shared", true, sha256("shared"));
    for (int number = 0; number < kAgents; ++number) {
        const std::string name = std::to_string(number);
        store.agents().connect({shared.id, "host " + name, "uuid " + name, "192.0.2.1"});
    }
    watch->look();
    ASSERT_FALSE(store.agents().list({AgentPresence::Connected, ""}, {}).items.empty());

    clock.advance(PresenceWatch::kPatience);
    watch->look();

    EXPECT_TRUE(store.agents().list({AgentPresence::Connected, ""}, {}).items.empty());
}

}  // namespace
}  // namespace kolvan::server::agents
