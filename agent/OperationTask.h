#pragma once

#include "agent/Agent.h"

#include <string>

namespace cagnt1 {

/// One operation on its own thread, from its start to the message of its end. Its output travels
/// through three aggregators, one a channel, and precedes that message.
class Agent::OperationTask {
public:
    /// @param agent sends the messages; it waits for every operation before it goes
    OperationTask(Agent& agent, std::string id, OperationFunction operation);

    /// Runs the operation and sends "collector:finish" with its code, or with the text of what it
    /// has thrown. Blocks until that has been answered.
    /// @throws what sending the message of a failure throws
    void operator()() const;

    /// The message of an operation that failed.
    static Message failed(const std::string& id, const std::string& error);

private:
    Agent* agent;  // never null
    std::string operationId;
    OperationFunction operation;
};

}  // namespace cagnt1
