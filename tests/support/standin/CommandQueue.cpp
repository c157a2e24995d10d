#include "tests/support/standin/CommandQueue.h"

#include <iterator>

namespace kolvan::test {

void CommandQueue::push(std::vector<AgentMessage> added) {
    const std::lock_guard lock(mutex);
    commands.insert(commands.end(), std::make_move_iterator(added.begin()),
                    std::make_move_iterator(added.end()));
    changed.notify_all();
}

std::vector<AgentMessage> CommandQueue::take(const std::string& agent,
                                             std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex);
    const std::size_t releasesBefore = releases;
    const auto released = [&] {
        return closed || releases != releasesBefore || leavingAgents.count(agent) != 0;
    };
    ++held;
    changed.notify_all();
    changed.wait_for(lock, timeout, [&] { return released() || !commands.empty(); });
    --held;
    // The commands stay for the next poll: this one may belong to an agent that is gone.
    if (released()) {
        leavingAgents.erase(agent);
        return {};
    }
    std::vector<AgentMessage> taken(std::make_move_iterator(commands.begin()),
                                    std::make_move_iterator(commands.end()));
    commands.clear();
    return taken;
}

void CommandQueue::releasePolls() {
    const std::lock_guard lock(mutex);
    ++releases;
    changed.notify_all();
}

void CommandQueue::releaseAgent(const std::string& agent) {
    const std::lock_guard lock(mutex);
    leavingAgents.insert(agent);
    changed.notify_all();
}

void CommandQueue::close() {
    const std::lock_guard lock(mutex);
    closed = true;
    changed.notify_all();
}

std::size_t CommandQueue::heldPolls() const {
    const std::lock_guard lock(mutex);
    return held;
}

bool CommandQueue::waitForHeldPolls(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return held >= count; });
}

}  // namespace kolvan::test
