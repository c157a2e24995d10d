#include "companions/server/agents/PollTable.h"

#include <utility>

namespace kolvan::server::agents {

PollTable::Poll::Poll(PollTable& owner, std::string agentId, Clock::time_point endOfTime)
    : table(owner), agent(std::move(agentId)), deadline(endOfTime) {}

PollTable::Poll::~Poll() {
    callback = nullptr;
    end(PollEnd::Gone);
}

void PollTable::Poll::onEnd(std::function<void(PollEnd)> ended) {
    if (endReason) {
        ended(*endReason);
    } else {
        callback = std::move(ended);
    }
}

void PollTable::Poll::end(PollEnd reason) {
    if (endReason) {
        return;
    }
    endReason = reason;
    table.held.erase(agent);
    table.order.erase(place);
    // Last: whoever is called may destroy this poll.
    if (const auto ended = std::exchange(callback, nullptr)) {
        ended(reason);
    }
}

std::unique_ptr<PollTable::Poll> PollTable::open(const std::string& agent, Clock::time_point now) {
    if (const auto older = held.find(agent); older != held.end()) {
        older->second->end(PollEnd::Superseded);
    }
    std::unique_ptr<Poll> poll(new Poll(*this, agent, now + holdTime));
    poll->place = order.insert(order.end(), poll.get());
    held[agent] = poll.get();
    if (stopped) {
        poll->end(PollEnd::Stopping);
    }
    return poll;
}

bool PollTable::wake(const std::string& agent) {
    const auto found = held.find(agent);
    if (found == held.end()) {
        return false;
    }
    found->second->end(PollEnd::Woken);
    return true;
}

void PollTable::expire(Clock::time_point now) {
    while (!order.empty() && order.front()->deadline <= now) {
        order.front()->end(PollEnd::TimeOver);
    }
}

std::optional<PollTable::Clock::time_point> PollTable::nextExpiry() const {
    if (order.empty()) {
        return std::nullopt;
    }
    return order.front()->deadline;
}

void PollTable::stop() {
    stopped = true;
    while (!order.empty()) {
        order.front()->end(PollEnd::Stopping);
    }
}

}  // namespace kolvan::server::agents
