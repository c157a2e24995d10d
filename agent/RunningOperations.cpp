#include "agent/RunningOperations.h"

#include "agent/PrintError.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace cagnt1 {

namespace {

bool hasEnded(const std::shared_future<void>& end) {
    return end.wait_for(std::chrono::seconds::zero()) == std::future_status::ready;
}

bool hasThrown(const std::shared_future<void>& end) {
    try {
        end.get();
        return false;
    } catch (...) {
        return true;  // what it was is told by waitForAll()
    }
}

}  // namespace

RunningOperations::~RunningOperations() {
    waitForAll();
}

void RunningOperations::launch(std::function<void()> operation) {
    joinEnded();
    const std::lock_guard lock(operationsMutex);
    // Room first: a thread that runs and is not listed could only be joined here, under the lock
    // that it needs to end.
    operations.emplace_back();
    try {
        operations.back().end =
            std::async(std::launch::async, [this, operation = std::move(operation)]() mutable {
                run(operation);
                // So that an agent that is given no further work keeps none of the earlier stacks.
                joinEnded();
            });
    } catch (...) {
        operations.pop_back();
        throw;
    }
}

// Destroys the function here, and not together with the operation's entry: one that has failed
// stays listed until the agent stops, and must not keep the message that asked for it.
void RunningOperations::run(std::function<void()>& operation) {
    const std::function<void()> taken = std::exchange(operation, nullptr);
    taken();
}

// A thread that has ended lives on, as far as its stack goes, until somebody joins it. Letting go
// of the future does that, and the thread needs no lock any more.
void RunningOperations::joinEnded() {
    const std::lock_guard lock(operationsMutex);
    std::erase_if(operations, [](Operation& operation) {
        if (!operation.hasFailed && hasEnded(operation.end)) {
            operation.hasFailed = hasThrown(operation.end);
            return !operation.hasFailed;
        }
        return false;
    });
}

// Waits without the lock: those that end meanwhile look at the list themselves, and somebody else
// may wait as well. A failure is told by whoever takes it off the list.
void RunningOperations::waitForAll() {
    for (const Operation& operation : listed()) {
        operation.end.wait();
    }
    for (const Operation& operation : takeEnded()) {
        try {
            operation.end.get();
        } catch (const std::exception& error) {
            printError(error);
        }
    }
}

std::vector<RunningOperations::Operation> RunningOperations::listed() {
    const std::lock_guard lock(operationsMutex);
    return operations;
}

std::vector<RunningOperations::Operation> RunningOperations::takeEnded() {
    const std::lock_guard lock(operationsMutex);
    const auto firstEnded =
        std::stable_partition(operations.begin(), operations.end(),
                              [](const Operation& operation) { return !hasEnded(operation.end); });
    std::vector<Operation> ended(firstEnded, operations.end());
    operations.erase(firstEnded, operations.end());
    return ended;
}

}  // namespace cagnt1
