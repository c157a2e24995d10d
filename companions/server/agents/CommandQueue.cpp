#include "companions/server/agents/CommandQueue.h"

#include "companions/server/store/StoreError.h"

#include <utility>

namespace kolvan::server::agents {

CommandQueue::CommandQueue(AgentService& agentService, WakeUps& wakeUps, Sender sender,
                           std::optional<AgentId> agent, Listeners listeners)
    : service(agentService),
      asking(std::move(sender)),
      owner(std::move(agent)),
      name(owner ? owner->text : "stranger " + asking.uuid),
      told(std::move(listeners)) {
    if (owner) {
        subscription = wakeUps.onCommands(*owner, [this] {
            changed = true;
            told.changed(name);
        });
    }
}

void CommandQueue::look() {
    operations.clear();
    if (!owner) {
        return;
    }
    changed = false;  // before: what comes while it is looked at may have been missed
    try {
        auto taken = service.takeCommands(asking, *owner);
        left = !taken;
        operations = std::move(taken).value_or(std::vector<Operation>());
    } catch (const StoreError& error) {
        // The poll is held as if there were none: an agent that was told would ask again at once,
        // and a full disk would be busy with its questions.
        told.log(std::string("An agent's commands stay in its queue: ") + error.what());
    }
}

}  // namespace kolvan::server::agents
