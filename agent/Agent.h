#pragma once

#include "agent/IAgent.h"
#include "agent/TaskThread.h"
#include "server/Message.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
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
/// Threads: `waitUntilStopped()` and `disconnect()` from any threads at once. Replies are handled
/// on the thread that sent the request, except those to an operation's own messages: whoever stops
/// the agent waits for the operations, so that these have a thread of their own.
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
    /// A message that waits its turn, and how many messages there are, each in the reply to what
    /// handling the one before it has sent, within whose handling its own takes place.
    struct PendingMessage {
        Message message;
        int depth = 1;
    };
    using PendingMessages = std::deque<PendingMessage>;

    /// One that has failed is kept for whoever stops the agent and then tells why.
    struct RunningOperation {
        std::shared_future<void> task;
        bool hasFailed = false;
    };

    void connect();
    bool shouldPoll();
    void setState(AgentState newState);
    AgentState currentState();

    void sendMessage(Message& message);
    void sendOperationMessage(Message message);
    void sendOperationRequest(const std::string& request);
    std::vector<Message> exchange(Message message);
    std::vector<Message> exchangeRequest(const std::string& request);
    Message identified(Message message) const;

    void handleServerMessages(const std::vector<Message>& messages);
    void handlePendingMessages(PendingMessages& pending);
    static void handleNext(const std::vector<Message>& messages, int depth,
                           PendingMessages& pending);
    void handleGuarded(const std::function<std::vector<Message>()>& action, int depth,
                       PendingMessages& pending);
    void reportFailure(std::string failure, int depth, PendingMessages& pending);
    std::vector<Message> handleServerMessage(const Message& message);

    void launchAsyncCollectorOperation(const std::string& id, OperationFunction&& operation);
    void runOperation(const std::string& id, const OperationFunction& operation);
    void performOperation(const std::string& id, const OperationFunction& operation);
    void joinEndedOperations();
    void waitForOperations();

    std::vector<Message> stop();
    void stopInBackground();
    bool beginStopping();
    std::vector<Message> completeStopping();

    const std::string agentUuid;
    const std::string accessToken;
    const std::shared_ptr<IServer> server;
    const std::shared_ptr<IOperations> operations;

    std::mutex stateMutex;  // guards the members up to the next blank line; held briefly
    AgentState state = AgentState::Created;
    std::condition_variable stateChanged;  // notified with stateMutex held
    bool hasStopped = false;               // Stopped was reached, whatever has been set since
    bool leaving = false;                  // the destructor runs: nothing is launched any more
    int stopsWaiting = 0;                  // stops that wait for operations
    std::vector<RunningOperation> runningOperations;  // those that run and those that have failed

    TaskThread operationReplies;       // handles the replies to operations' messages
    TaskThread backgroundStops;        // carries out the stops among them
    std::future<void> connectionTask;  // last: it uses all of the above
};

}  // namespace cagnt1
