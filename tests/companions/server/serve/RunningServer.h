#pragma once

#include "tests/companions/server/support/Client.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

namespace kolvan::test {

/// How the server's program is started.
struct ServerStart {
    std::filesystem::path data;
    std::string listen = "127.0.0.1:0";
    std::vector<std::string> moreArguments;
    std::map<std::string, std::string> environment;  ///< in addition to the test's own
    std::optional<rlim_t> softDescriptorLimit;
    std::vector<int> handedOver;  ///< listening sockets, as a service manager passes them
};

/// A running server. Its output goes to files, so that it can go on while one process takes over
/// from another. Whatever is left of it at the end is killed; when the test dies, its first process
/// is, and one that has replaced that one is not.
///
/// Threads: one thread uses it, the one that has made it.
class RunningServer {
public:
    explicit RunningServer(const ServerStart& start);
    ~RunningServer();

    RunningServer(const RunningServer&) = delete;
    RunningServer& operator=(const RunningServer&) = delete;

    /// The process that serves, or was the last one to do so.
    pid_t pid() const { return process; }

    /// Blocks until it serves, and tells where.
    /// @throws std::runtime_error with what it has said when it ends instead
    unsigned port();

    void sendSignal(int number) const;

    /// Blocks until the process has ended.
    /// @return "exited with 0" or "killed by signal 9"
    std::string waitForEnd();

    /// Sends SIGHUP and blocks until another process serves. It is the one of which `pid` speaks
    /// then, and the one before ends when it has nothing left to do.
    /// @return the one before
    pid_t restart();

    /// Blocks until a process that was replaced has ended.
    static std::string waitForEndOf(pid_t replaced);

    /// Standard output and standard error so far.
    std::string output() const { return readFile(place.entry("out")); }
    std::string errors() const { return readFile(place.entry("err")); }

    /// Blocks until standard error has this text. @return false when the deadline has passed
    bool waitForErrors(const std::string& text) const;

    /// Runs a command of the program on the same data, `token add` for instance.
    /// @return the line that it has written
    /// @throws std::runtime_error with what it has said when it fails
    std::string command(const std::vector<std::string>& words) const;

private:
    TemporaryDirectory place;
    const std::filesystem::path data;
    pid_t group = -1;
    pid_t process = -1;
    bool ended = false;
    unsigned listeningPort = 0;
};

/// Requests to a server's API with a token, each over a connection of its own.
class ApiClient {
public:
    ApiClient(unsigned serverPort, std::string apiToken)
        : port(serverPort), token(std::move(apiToken)) {}

    ReceivedResponse get(const std::string& path) const { return request("GET", path, ""); }
    ReceivedResponse post(const std::string& path, const std::string& json = "{}") const {
        return request("POST", path, json);
    }

    /// The agents that the server knows: their ids by their names.
    std::map<std::string, std::string> agents() const;

    /// The id of the agent with this name. Blocks until there is one.
    std::string agent(const std::string& name) const;

    /// Makes a collection of a command. @return its id
    /// @throws std::runtime_error with the answer when it is refused
    std::string collect(const std::string& agent, const std::vector<std::string>& command) const;

    /// What a member of the collection, a text, is now.
    std::string member(const std::string& collection, const std::string& name) const;

    /// Blocks until the collection is in this state. @return the state when the deadline has passed
    std::string waitForState(const std::string& collection, const std::string& state) const;

    ReceivedResponse request(const std::string& method, const std::string& path,
                             const std::string& body) const;

private:
    unsigned port;
    std::string token;
};

}  // namespace kolvan::test
