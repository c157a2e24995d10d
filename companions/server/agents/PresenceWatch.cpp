#include "companions/server/agents/PresenceWatch.h"

#include <utility>

namespace kolvan::server::agents {

namespace {

constexpr std::size_t kAtOnce = 1000;  // agents that are read at a time

}  // namespace

void PresenceWatch::look() {
    AgentFilter filter;
    filter.presence = AgentPresence::Connected;
    PageRequest request{kAtOnce, {}};
    Sights now;
    do {
        Page<Agent> page = store.list(filter, request);
        for (const Agent& agent : page.items) {
            Sight sight{agent.lastSeen, clock.steady()};
            const auto before = connected.find(agent.id);
            if (before != connected.end() && before->second.lastSeen == agent.lastSeen) {
                sight.noticed = before->second.noticed;
            }
            if (clock.steady() - sight.noticed >= kPatience) {
                store.markLost(agent.id, agent.lastSeen);
            } else {
                now.emplace(agent.id, sight);
            }
        }
        request.after = std::move(page.next);
    } while (!request.after.empty());
    connected = std::move(now);
}

}  // namespace kolvan::server::agents
