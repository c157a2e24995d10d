#pragma once

#include "agent/Agent.h"
#include "tests/support/FakeOperations.h"
#include "tests/support/FakeServer.h"
#include "tests/support/ThreadStates.h"

#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

namespace kolvan::test {

/// Ends the process with a word of explanation when it lives too long: what hangs in the agent
/// cannot be taken back by the test that waits for it.
class Watchdog {
public:
    Watchdog();
    ~Watchdog();

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch();

    std::mutex mutex;  // guards dismissed
    std::condition_variable changed;
    bool dismissed = false;
    std::thread thread;
};

/// One agent between a fake server and fake operations.
///
/// Declared after what the operations' functions refer to, so that the agent goes first.
class AgentWithFakes {
public:
    static const std::string kAccessToken;

    AgentWithFakes();

    /// Destroys the agent.
    ~AgentWithFakes();

    AgentWithFakes(const AgentWithFakes&) = delete;
    AgentWithFakes& operator=(const AgentWithFakes&) = delete;

    const std::shared_ptr<FakeServer> server;
    const std::shared_ptr<FakeOperations> operations;
    std::unique_ptr<cagnt1::Agent> agent;

    /// Makes the agent, which connects on a thread of its own.
    void start();

    /// Makes the agent and waits until its first poll is in flight.
    void startPolling();

    /// Answers the poll in flight and waits for the next, so that the whole reply is handled.
    void deliver(const Messages& reply);

    /// Waits for "disconnect", then lets the poll in flight come back and waits until the agent
    /// has stopped.
    void awaitStopped();

    /// Lets the server answer whatever is held, then destroys the agent.
    void destroyAgent();

    /// The agent's UUID, as its first message gave it.
    std::string agentUuid();

    /// Parameters of a message of this agent: the given ones and those that every message carries.
    std::unordered_map<std::string, std::string> withIdentity(
        std::unordered_map<std::string, std::string> parameters);

private:
    Watchdog watchdog;
};

/// Stops an agent with `disconnect()` while it runs operations, on two threads: the call that
/// finds the stop begun comes back at once, and so the constructor knows that it has begun.
class StopInProgress {
public:
    explicit StopInProgress(cagnt1::IAgent& agent);

    /// Blocks until the stop is complete.
    void wait();

private:
    std::future<void> first;
    std::future<void> second;
};

/// Number of threads of this process, and of the stacks of threads that it has mapped: writable
/// memory right behind one page that nobody may touch, as pthread_create(3) lays them out.
std::size_t threadCount();
std::size_t stackCount();

/// Blocks until this process has no more than `count` threads.
/// @throws std::runtime_error when the deadline passes
void waitUntilThreadCountIsAtMost(std::size_t count);

}  // namespace kolvan::test
