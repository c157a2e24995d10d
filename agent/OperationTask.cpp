#include "agent/Agent.h"
#include "agent/OperationProgressAggregator.h"

#include <array>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

namespace cagnt1 {

namespace {

using Aggregator = Agent::OperationProgressAggregator;

// The three channels of one operation, in the order in which they are finished. At the end of the
// operation nothing of them is left that somebody would have to wait for.
class OperationChannels {
public:
    OperationChannels(Agent& agent, const std::string& id)
        : feedback(std::make_shared<Aggregator>(OutputChannel::Feedback, agent, id)),
          standardOutput(std::make_shared<Aggregator>(OutputChannel::Stdout, agent, id)),
          standardError(std::make_shared<Aggregator>(OutputChannel::Stderr, agent, id)) {}

    ~OperationChannels() {
        for (const auto& channel : all()) {
            channel->close();
        }
    }

    OperationChannels(const OperationChannels&) = delete;
    OperationChannels& operator=(const OperationChannels&) = delete;

    IAgent::IOperations::OperationMessenger makeMessenger() const {
        const auto sendOn = [](const std::shared_ptr<Aggregator>& channel) {
            return [channel](const std::string& text) { channel->send(text); };
        };
        return {sendOn(feedback), sendOn(standardOutput), sendOn(standardError)};
    }

    void finish() const {
        for (const auto& channel : all()) {
            channel->finish();
        }
    }

    void abandon() const {
        for (const auto& channel : all()) {
            channel->abandon();
        }
    }

private:
    std::array<std::shared_ptr<Aggregator>, 3> all() const {
        return {feedback, standardOutput, standardError};
    }

    std::shared_ptr<Aggregator> feedback;
    std::shared_ptr<Aggregator> standardOutput;
    std::shared_ptr<Aggregator> standardError;
};

}  // namespace

void Agent::runOperation(const std::string& id, const OperationFunction& operation) {
    performOperation(id, operation);
    // Joins the operations that ended before this one, so that an agent that is given no further
    // work keeps none of their stacks. Only a try: somebody who stops the agent waits for us.
    const std::unique_lock lock(stateMutex, std::try_to_lock);
    if (lock) {
        joinEndedOperations();
    }
}

void Agent::performOperation(const std::string& id, const OperationFunction& operation) {
    const OperationChannels channels(*this, id);
    std::string failure;
    try {
        const int code = operation(channels.makeMessenger());
        channels.finish();
        sendOperationMessage({"collector:finish", {{"id", id}, {"code", std::to_string(code)}}});
        return;
    } catch (const std::exception& error) {
        failure = error.what();
    }
    // Deliberate: no last flush. A delayed send that is under way may still follow the message;
    // text that it does not carry is dropped with the operation that failed.
    channels.abandon();
    sendOperationMessage({"collector:finish", {{"errorMessage", failure}, {"id", id}}});
}

}  // namespace cagnt1
