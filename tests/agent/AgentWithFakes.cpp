#include "tests/agent/AgentWithFakes.h"

#include "server/AgentConfiguration.h"
#include "tests/support/Gate.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace kolvan::test {

namespace {

constexpr std::chrono::seconds kLifeTime{200};

/// Size of a mapping by its line in /proc/PID/maps, which begins with "first-behindLast".
long bytesOfMapping(const std::string& line) {
    std::size_t dash = 0;
    const unsigned long first = std::stoul(line, &dash, 16);
    return static_cast<long>(std::stoul(line.substr(dash + 1), nullptr, 16) - first);
}

}  // namespace

const std::string AgentWithFakes::kAccessToken = "token/of the \"test\"";

Watchdog::Watchdog() : thread([this] { watch(); }) {}

Watchdog::~Watchdog() {
    {
        const std::lock_guard lock(mutex);
        dismissed = true;
        changed.notify_all();
    }
    thread.join();
}

void Watchdog::watch() {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, kLifeTime, [this] { return dismissed; })) {
        std::fputs("The agent hangs: its test does not come to an end.\n", stderr);
        std::abort();
    }
}

AgentWithFakes::AgentWithFakes()
    : server(std::make_shared<FakeServer>()), operations(std::make_shared<FakeOperations>()) {}

AgentWithFakes::~AgentWithFakes() {
    destroyAgent();
}

void AgentWithFakes::start() {
    cagnt1::AgentConfiguration configuration;
    configuration.accessToken = kAccessToken;
    agent = std::make_unique<cagnt1::Agent>(configuration, server, operations);
}

void AgentWithFakes::startPolling() {
    start();
    server->waitForRequest("commands:get");
}

void AgentWithFakes::deliver(const Messages& reply) {
    server->waitForRequest("commands:get");
    const std::size_t polls = server->count("commands:get");
    server->answer("commands:get", reply);
    server->waitForRequest("commands:get", polls + 1);
}

void AgentWithFakes::awaitStopped() {
    server->waitForRequest("disconnect");
    server->release("commands:get");
    agent->waitUntilStopped();
}

void AgentWithFakes::destroyAgent() {
    server->end();
    agent.reset();
}

std::string AgentWithFakes::agentUuid() {
    return server->waitForRequest("connect").message.parameter("agentUuid");
}

std::unordered_map<std::string, std::string> AgentWithFakes::withIdentity(
    std::unordered_map<std::string, std::string> parameters) {
    parameters["agentUuid"] = agentUuid();
    parameters["accessToken"] = kAccessToken;
    return parameters;
}

StopInProgress::StopInProgress(cagnt1::IAgent& agent) {
    const auto oneCameBack = std::make_shared<Gate>();
    const auto callDisconnect = [&agent, oneCameBack] {
        agent.disconnect();
        oneCameBack->open();
    };
    first = std::async(std::launch::async, callDisconnect);
    second = std::async(std::launch::async, callDisconnect);
    oneCameBack->wait();
}

void StopInProgress::wait() {
    first.get();
    second.get();
}

std::size_t threadCount() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        count += entry.path().empty() ? 0U : 1U;
    }
    return count;
}

std::size_t stackCount() {
    std::ifstream file("/proc/self/maps");
    std::size_t count = 0;
    bool behindGuard = false;
    for (std::string line; std::getline(file, line);) {
        const bool guard = line.find(" ---p 00000000 00:00 0") != std::string::npos;
        const bool writable = line.find(" rw-p 00000000 00:00 0") != std::string::npos;
        count += behindGuard && writable ? 1U : 0U;
        // Memory of the sanitizers lies behind reserves of other sizes.
        behindGuard = guard && bytesOfMapping(line) == ::sysconf(_SC_PAGESIZE);
    }
    return count;
}

void waitUntilThreadCountIsAtMost(std::size_t count) {
    lookUntil([&] { return threadCount() <= count; }, "threads are left over");
}

}  // namespace kolvan::test
