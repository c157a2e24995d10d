#include "agent/OperationTask.h"

#include "agent/OperationProgressAggregator.h"

#include <array>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

namespace cagnt1 {

namespace {

using Aggregator = Agent::OperationProgressAggregator;

// The three channels of one operation, in the order in which they are finished. Their sends have
// ended when this has been destroyed.
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

Agent::OperationTask::OperationTask(Agent& agent, std::string id, OperationFunction operation)
    : agent(&agent), operationId(std::move(id)), operation(std::move(operation)) {}

void Agent::OperationTask::operator()() const {
    std::optional<OperationChannels> channels;  // there are none when there is no memory for them
    std::string failure;
    try {
        channels.emplace(*agent, operationId);
        const int code = operation(channels->makeMessenger());
        channels->finish();
        agent->sendOperationMessage(
            {"collector:finish", {{"id", operationId}, {"code", std::to_string(code)}}});
        return;
    } catch (const std::exception& error) {
        failure = error.what();
    }
    // Deliberate: no last flush. A delayed send that is under way may still follow the message;
    // text that it does not carry is dropped with the operation that failed.
    if (channels) {
        channels->abandon();
    }
    agent->sendOperationMessage(failed(operationId, failure));
}

Message Agent::OperationTask::failed(const std::string& id, const std::string& error) {
    return {"collector:finish", {{"errorMessage", error}, {"id", id}}};
}

}  // namespace cagnt1
