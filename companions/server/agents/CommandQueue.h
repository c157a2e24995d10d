#pragma once

#include "companions/server/agents/AgentService.h"
#include "companions/server/store/Store.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::agents {

/// The commands that wait for one agent, as one of its polls sees them: takes what there is, and
/// notices what comes after that, which may also be the agent's own farewell.
///
/// Threads: one at a time. `look` blocks on the disk: call it on the pool.
class CommandQueue {
public:
    /// Whom a queue tells. Both are called from any thread.
    struct Listeners {
        std::function<void(const std::string& key)> changed;  ///< a look may find something
        std::function<void(std::string_view)> log;            ///< takes a line for the operator
    };

    /// @param sender who asks, and `agent` who that is; nothing for a stranger, who has no commands
    /// @param agentService, wakeUps outlive this
    CommandQueue(AgentService& agentService, WakeUps& wakeUps, Sender sender,
                 std::optional<AgentId> agent, Listeners listeners);

    CommandQueue(const CommandQueue&) = delete;
    CommandQueue& operator=(const CommandQueue&) = delete;

    /// Takes what waits.
    void look();

    /// What the last look has taken.
    const std::vector<Operation>& taken() const { return operations; }

    /// Whether the last look has found that the agent has said "disconnect".
    bool hasLeft() const { return left; }

    /// Whether something may have come since the last look began.
    bool hasChanged() const { return changed; }

    /// The name under which polls for this queue are held. A stranger's is held, too: it would ask
    /// again at once.
    const std::string& key() const { return name; }

private:
    AgentService& service;
    const Sender asking;
    const std::optional<AgentId> owner;
    const std::string name;
    const Listeners told;
    std::vector<Operation> operations;
    bool left = false;
    std::atomic<bool> changed{false};
    std::unique_ptr<Subscription> subscription;  // goes first: what it calls refers to the others
};

}  // namespace kolvan::server::agents
