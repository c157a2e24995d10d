#pragma once

#include "tests/companions/server/support/NetworkThread.h"

#include <boost/asio/ip/tcp.hpp>

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kolvan::test {

/// Agents that connect to a server on 127.0.0.1 and ask for commands for ever, many on one thread.
/// As a real one does, each gives up for good when a request of its is not answered whole.
///
/// Threads: any member from any thread.
class AgentCrowd {
public:
    /// Begins. @param token shared by all of them; they are told apart as "host-0", "host-1", ...
    AgentCrowd(unsigned serverPort, std::string agentToken, std::size_t count);
    ~AgentCrowd();

    AgentCrowd(const AgentCrowd&) = delete;
    AgentCrowd& operator=(const AgentCrowd&) = delete;

    /// How many have been accepted so far.
    std::size_t accepted() const;

    /// How many commands each has been given.
    std::vector<int> commands() const;

    /// How many polls have been answered, of all of them.
    std::size_t answers() const;

    /// Why some have given up.
    std::vector<std::string> failures() const;

private:
    server::http::Awaitable<void> live(std::size_t number);
    server::http::Awaitable<std::string> request(std::string body);
    void change(const std::function<void()>& apply);

    const boost::asio::ip::tcp::endpoint server;
    const std::string token;

    // Guards connected, answered, received, reasons and stopping.
    mutable std::mutex mutex;
    std::size_t connected = 0;
    std::size_t answered = 0;
    std::vector<int> received;
    std::vector<std::string> reasons;
    bool stopping = false;

    NetworkThread thread;  // goes first
};

}  // namespace kolvan::test
