#include "agent/RunningOperations.h"

#include "agent/PrintError.h"

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
    operations.push_back(
        {std::async(std::launch::async, [this, operation = std::move(operation)]() mutable {
            run(operation);
            // So that an agent that is given no further work keeps none of the earlier stacks.
            joinEnded();
        })});
}

// The function goes before the thread does: one that has failed is listed for as long as the agent
// is connected, and must not keep the message that asked for it.
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

// Without the lock: those that end meanwhile look at the list themselves.
void RunningOperations::waitForAll() {
    std::vector<Operation> ending;
    {
        const std::lock_guard lock(operationsMutex);
        ending.swap(operations);
    }
    for (const Operation& operation : ending) {
        try {
            operation.end.get();
        } catch (const std::exception& error) {
            printError(error);
        }
    }
}

}  // namespace cagnt1
