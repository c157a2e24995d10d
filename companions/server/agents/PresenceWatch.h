#pragma once

#include "companions/server/base/Clock.h"
#include "companions/server/store/Store.h"

#include <chrono>
#include <unordered_map>

namespace kolvan::server::agents {

/// Notices agents that have gone without a word, and shows them as lost.
///
/// An agent is lost when the moment at which it was last seen has stayed the same for a while. How
/// long, is measured here and by a time that only goes on: the machine's clock may be set, and the
/// agent be seen by another server. After a start every agent has the whole while to be heard.
///
/// Threads: one at a time.
class PresenceWatch {
public:
    /// Agents ask for commands every 25 seconds, and what was heard is recorded some seconds later.
    static constexpr std::chrono::seconds kPatience{70};

    /// Both outlive this.
    PresenceWatch(AgentStore& agentStore, const Clock& ownClock)
        : store(agentStore), clock(ownClock) {}

    /// Looks at all agents. To be called every few seconds; blocks on the store.
    /// @throws StoreError
    void look();

private:
    using Time = std::chrono::steady_clock::time_point;

    struct Sight {
        UtcTime lastSeen;  // as the store has it
        Time noticed;      // when it was first found so
    };
    using Sights = std::unordered_map<AgentId, Sight>;

    AgentStore& store;
    const Clock& clock;
    Sights connected;  // as they were at the last look
};

}  // namespace kolvan::server::agents
