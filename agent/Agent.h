#pragma once

#include "agent/IAgent.h"
#include "agent/ReplyHandling.h"
#include "agent/RunningOperations.h"
#include "agent/TaskThread.h"
#include "server/Message.h"

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cagnt1 {

class IServer;
struct AgentConfiguration;

/// Where the agent stands in its life.
enum class AgentState { Created, Connected, Stopping, Stopped };

/// The agent's single connection with its server: announces the agent, asks for work in a loop,
/// dispatches what the server says and runs its operations.
///
/// Threads: `waitUntilStopped()` and `disconnect()` from any threads at once. A reply is handled on
/// the thread that sent the request. Only the replies to operations' messages have a thread of
/// their own, because whoever stops the agent waits for the operations.
class Agent : public IAgent {
public:
    /// Gathers the text of one output channel of an operation (OperationProgressAggregator.h).
    class OperationProgressAggregator;

    using OperationFunction = std::function<int(IOperations::OperationMessenger&&)>;

    /// Makes the agent's identity and starts the connection task.
    /// @param operations may be empty: every message of the server is then ignored
    /// @throws std::system_error when there is no thread to be had
    Agent(const AgentConfiguration& configuration, std::shared_ptr<IServer> server,
          std::shared_ptr<IOperations> operations);

    /// Stops the agent where that has not been done, then waits for the connection task and for
    /// everything that replies have asked for. A task's error goes to standard error.
    ~Agent() override;

    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    void waitUntilStopped() override;
    void disconnect() override;

private:
    /// Runs one operation and reports its end (OperationTask.h).
    class OperationTask;

    void connect();
    bool shouldPoll();
    void setState(AgentState newState);
    AgentState currentState();

    void sendMessage(Message& message);
    void sendOperationMessage(Message message);
    void sendOperationRequest(const std::string& request);
    std::vector<Message> exchange(const Message& message);
    std::vector<Message> exchangeRequest(const std::string& request);
    Message identified(Message message) const;

    void handleServerMessages(const std::vector<Message>& messages);
    std::vector<Message> handleServerMessage(const Message& message);

    void launchAsyncCollectorOperation(const std::string& id, OperationFunction&& operation);

    std::vector<Message> stop();
    void stopInBackground();
    bool beginStopping();
    std::vector<Message> completeStopping();

    const std::string agentUuid;
    const std::string accessToken;
    const std::shared_ptr<IServer> server;
    const std::shared_ptr<IOperations> operations;

    // `state` tells where the agent stands, and the server can set it back: "connected" sets
    // Connected at any time, also while the agent stops and after it has stopped. What must not be
    // forgotten then stands in three more members:
    //
    // stopsWaiting counts the stops (by "stop", SIGINT or the destructor) that still wait for
    // operations to end. While there is one nothing is polled for, whatever `state` says.
    //
    // hasStopped says that Stopped was reached once. `waitUntilStopped()` returns then, also when
    // `state` has been set back before the waiting thread could look.
    //
    // leaving says that the destructor has begun. From then on nothing is launched or polled for,
    // whatever `state` is set to.
    //
    // The mutex guards these four, and is held briefly. The lock of runningOperations may be taken
    // under it.
    std::mutex stateMutex;
    AgentState state = AgentState::Created;
    std::condition_variable stateChanged;  // notified with stateMutex held
    bool hasStopped = false;
    bool leaving = false;
    int stopsWaiting = 0;

    RunningOperations runningOperations;
    const ReplyHandling replyHandling;
    TaskThread operationReplies;       // handles the replies to operations' messages
    TaskThread backgroundStops;        // carries out the stops among them
    std::future<void> connectionTask;  // last: it uses all of the above
};

}  // namespace cagnt1
