#pragma once

#include <functional>
#include <string>
#include <vector>

namespace cagnt1 {

/// The agent as the program entry sees it.
class IAgent {
public:
    class IOperations;

    virtual ~IAgent() = default;

    /// Blocks, without a time limit, until the agent has stopped.
    virtual void waitUntilStopped() = 0;

    /// Asks the agent to stop: waits for every running operation, then says "disconnect" to the
    /// server. Does nothing when the agent is stopping or has stopped. Any thread.
    /// @throws std::runtime_error when the server cannot be reached
    virtual void disconnect() = 0;
};

/// The work that the agent does for its server, as the agent core sees it.
///
/// Threads: `execute`, `performCollection` and `collectionCommand` are called on one thread per
/// operation, several at once; the others on whichever thread handles a server's reply.
class IAgent::IOperations {
public:
    /// Where an operation's output goes, chunk by chunk and exactly as it was read. Each callback
    /// may be called from any thread and any number of times, but not from two threads at once;
    /// text for an empty callback is dropped. The callbacks must not be called any more when the
    /// operation has returned.
    struct OperationMessenger {
        std::function<void(const std::string&)> onFeedback;
        std::function<void(const std::string&)> onStdout;
        std::function<void(const std::string&)> onStderr;
    };

    virtual ~IOperations() = default;

    /// The server has accepted the agent.
    virtual void onConnect() = 0;

    /// The server has let the agent go.
    virtual void onDisconnect() = 0;

    /// The server has reported an error.
    virtual void onError(const std::string& errorMessage) = 0;

    /// Runs the collector with `args`.
    /// @return its exit code
    /// @throws std::exception whose text becomes the operation's error message
    virtual int execute(std::vector<std::string> args, OperationMessenger&& messenger) = 0;

    /// Runs a whole collection and uploads its trace files.
    /// @param options the collector's options, one a line
    /// @param traceUploadDirectory the server's directory for the trace files
    /// @return the collector's exit code
    /// @throws std::exception whose text becomes the operation's error message
    virtual int performCollection(std::string options, std::string traceUploadDirectory,
                                  OperationMessenger&& messenger) = 0;

    /// Passes a command to the running collection.
    /// @return the exit code of the collector process that carried the command
    /// @throws std::exception whose text becomes the operation's error message
    virtual int collectionCommand(std::string command, OperationMessenger&& messenger) = 0;

    /// Ends everything that runs. Returns when the running collection has ended.
    virtual void cancelOperations() = 0;
};

}  // namespace cagnt1
