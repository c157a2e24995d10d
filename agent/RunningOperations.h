#pragma once

#include <functional>
#include <future>
#include <mutex>
#include <vector>

namespace cagnt1 {

/// The operations that have been launched, each on a thread of its own.
///
/// An operation that has ended is forgotten and its thread joined, when another one is launched or
/// ends. One that has failed is kept, so that whoever waits for all can tell why.
///
/// Threads: every member from any threads at once, operations included, except that an operation
/// must not wait for all of them.
class RunningOperations {
public:
    /// Waits for all, as `waitForAll()` does.
    ~RunningOperations();

    RunningOperations() = default;
    RunningOperations(const RunningOperations&) = delete;
    RunningOperations& operator=(const RunningOperations&) = delete;

    /// Runs `operation` on a thread of its own and returns. The function is destroyed on that
    /// thread as soon as it has returned or thrown.
    /// @throws std::system_error when there is no thread to be had; the operation does not run then
    void launch(std::function<void()> operation);

    /// Joins the threads of those that have ended. Blocks no longer than these take to go.
    void joinEnded();

    /// Blocks, without a time limit, until those have ended that were launched before. What one of
    /// them threw is printed on standard error, followed by a line end; where several wait at
    /// once, by one of them.
    void waitForAll();

private:
    struct Operation {
        std::shared_future<void> end;
        bool hasFailed = false;
    };

    static void run(std::function<void()>& operation);
    std::vector<Operation> listed();
    std::vector<Operation> takeEnded();

    std::mutex operationsMutex;  // guards operations; no other lock is taken under it
    std::vector<Operation> operations;
};

}  // namespace cagnt1
