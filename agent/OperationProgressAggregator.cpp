#include "agent/OperationProgressAggregator.h"

#include <system_error>
#include <thread>
#include <utility>

namespace cagnt1 {

namespace {

// Long enough to gather the pieces of a burst, short enough to feel immediate.
constexpr std::chrono::milliseconds kGatherDelay{20};

std::string messageTypeOf(OutputChannel channel) {
    switch (channel) {
        case OutputChannel::Feedback:
            return "collector:feedback";
        case OutputChannel::Stdout:
            return "collector:stdout";
        case OutputChannel::Stderr:
            return "collector:stderr";
    }
    return {};
}

}  // namespace

Agent::OperationProgressAggregator::OperationProgressAggregator(OutputChannel channel, Agent& agent,
                                                                const std::string& operationId)
    : agent(agent),
      delay(kGatherDelay),
      frame(agent.identified({messageTypeOf(channel), {{"id", operationId}}})),
      buffer(frame) {}

void Agent::OperationProgressAggregator::send(const std::string& text) {
    const std::lock_guard lock(mutex);
    if (closed) {
        return;
    }
    buffer.append(text);
    if (!sendScheduled) {
        scheduleSend();
    }
}

void Agent::OperationProgressAggregator::scheduleSend() {
    try {
        // Replacing the previous future joins a thread that has nothing left to do.
        pendingSend = std::async(std::launch::async, &OperationProgressAggregator::sendDelayed,
                                 weak_from_this(), delay);
        sendScheduled = true;
    } catch (const std::system_error&) {
        // No thread to be had. The text stays and goes with the next piece or at the end: the
        // caller is the reader of a pipe, which has to be read on whatever happens here.
    }
}

void Agent::OperationProgressAggregator::sendDelayed(
    const std::weak_ptr<OperationProgressAggregator>& self, std::chrono::milliseconds delay) {
    bool textLeft = true;
    while (textLeft) {
        std::this_thread::sleep_for(delay);
        const auto aggregator = self.lock();
        textLeft = aggregator != nullptr && aggregator->sendScheduledText();
    }
}

// Returns whether more text has come in the meantime, which then waits for a delay of its own.
bool Agent::OperationProgressAggregator::sendScheduledText() {
    if (hasText()) {
        try {
            flush();
        } catch (...) {
            // The text that could not be sent is lost. What came meanwhile is sent by the next
            // turn of this thread: without that it would wait until somebody writes again.
        }
    }
    const std::lock_guard lock(mutex);
    sendScheduled = !buffer.empty() && !closed;
    if (!sendScheduled) {
        giveRoomBack();
    }
    return sendScheduled;
}

// With mutex held, when nothing more has come: an operation may be silent for hours.
void Agent::OperationProgressAggregator::giveRoomBack() {
    std::string().swap(room);
    if (buffer.empty()) {
        buffer = OutputRequest(frame);
    }
}

// Fresh memory costs more than what is written into it: in a flood the next text is written where
// the last one was.
void Agent::OperationProgressAggregator::flush() {
    std::string request = takeRequest();
    agent.sendOperationRequest(request);
    const std::lock_guard lock(mutex);
    room = std::move(request);
}

std::string Agent::OperationProgressAggregator::takeRequest() {
    std::unique_lock lock(mutex);
    OutputRequest taken = std::exchange(buffer, OutputRequest(frame, std::move(room)));
    lock.unlock();
    return std::move(taken).complete();
}

void Agent::OperationProgressAggregator::finish() {
    waitForPendingSend();
    if (hasText()) {
        flush();
    }
}

void Agent::OperationProgressAggregator::abandon() {
    const std::lock_guard lock(mutex);
    closed = true;
}

void Agent::OperationProgressAggregator::close() {
    abandon();
    waitForPendingSend();
}

bool Agent::OperationProgressAggregator::hasText() {
    const std::lock_guard lock(mutex);
    return !buffer.empty();
}

void Agent::OperationProgressAggregator::waitForPendingSend() {
    std::future<void> pending;
    {
        const std::lock_guard lock(mutex);
        pending = std::move(pendingSend);
    }
    if (pending.valid()) {
        pending.wait();
    }
}

}  // namespace cagnt1
