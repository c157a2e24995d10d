#pragma once

#include "agent/IAgent.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kolvan::test {

/// Operations that keep what they were asked and run what the test gives them.
///
/// The public functions are set before the agent is started; where one is empty the call does
/// nothing. To hold an operation, its function waits at a `Gate`.
///
/// Threads: every member function from any threads at once; the test's functions run on the
/// calling thread, after the call was recorded.
class FakeOperations : public cagnt1::IAgent::IOperations {
public:
    struct Call {
        std::string function;                ///< name of the member function
        std::vector<std::string> arguments;  ///< its texts, in order
        std::thread::id thread;
    };
    using Body = std::function<int(OperationMessenger& messenger)>;

    std::function<void()> connectBody;
    std::function<void()> disconnectBody;
    std::function<void(const std::string& errorMessage)> errorBody;
    std::function<void()> cancelBody;

    /// What an operation does, by its first argument ("args" up to the first blank, "options" or
    /// "command"). An operation that is not listed returns 0.
    std::map<std::string, Body> bodies;

    /// Blocks until the n-th call (from 1) of the member function has begun.
    /// @throws std::runtime_error when it does not come within the deadline
    Call waitForCall(const std::string& function, std::size_t n = 1);

    /// All calls, or those of one member function, in the order in which they began.
    std::vector<Call> calls();
    std::vector<Call> calls(const std::string& function);

    /// Each call as one text: the function's name and its arguments in brackets.
    std::vector<std::string> callTexts();

    void onConnect() override;
    void onDisconnect() override;
    void onError(const std::string& errorMessage) override;
    int execute(std::vector<std::string> args, OperationMessenger&& messenger) override;
    int performCollection(std::string options, std::string traceUploadDirectory,
                          OperationMessenger&& messenger) override;
    int collectionCommand(std::string command, OperationMessenger&& messenger) override;
    void cancelOperations() override;

private:
    void record(const std::string& function, std::vector<std::string> arguments);
    int perform(const std::string& name, OperationMessenger& messenger);

    std::mutex mutex;  // guards recorded
    std::condition_variable changed;
    std::vector<Call> recorded;
};

}  // namespace kolvan::test
