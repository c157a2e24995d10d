#pragma once

#include "companions/server/http/Server.h"
#include "tests/companions/server/support/Client.h"
#include "tests/companions/server/support/NetworkThread.h"

#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kolvan::test {

/// A server on 127.0.0.1, on a port that the system chose, with the routes of a test. It is stopped
/// at the end.
class ServerScene {
public:
    static constexpr std::size_t kThreads = 2;  ///< of the pool

    ServerScene() = default;
    ~ServerScene();

    ServerScene(const ServerScene&) = delete;
    ServerScene& operator=(const ServerScene&) = delete;

    server::http::Router router;            ///< to be filled before `start`
    server::http::ServerSettings settings;  ///< the same; the log is kept by the scene

    void start();

    /// Starts on a socket that listens already.
    void startOn(basekit2::UniqueFd socket);

    /// Stops the server. It may be started again.
    /// @return how many connections had to be broken off
    std::size_t stop(std::chrono::seconds patience = std::chrono::seconds(120));

    /// Begins to stop the server, which takes until its connections have ended. When it returns,
    /// connections have been told.
    std::future<std::size_t> beginToStop(std::chrono::seconds patience = std::chrono::seconds(120));

    /// Takes the patience of a stop that has begun away.
    void hurry(std::chrono::seconds patience);

    unsigned port() const { return listeningPort; }
    NetworkThread& network() { return networkThread; }
    boost::asio::thread_pool& threads() { return pool; }

    std::size_t connections();
    bool waitForConnections(std::size_t count);

    /// The lines that the server has logged.
    std::vector<std::string> log() const;

private:
    mutable std::mutex mutex;  // guards lines
    std::vector<std::string> lines;
    unsigned listeningPort = 0;
    NetworkThread networkThread;
    boost::asio::thread_pool pool{kThreads};  // goes first
    std::unique_ptr<server::http::Server> served;
};

}  // namespace kolvan::test
