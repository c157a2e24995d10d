#pragma once

#include "tests/support/standin/ArrivedMessage.h"
#include "tests/support/standin/OutputLog.h"
#include "tests/support/standin/ServerRecords.h"
#include "tests/support/standin/UploadStore.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {

/// What a `ProfilingServer` tells while it happens. Calls come from the server's threads, one at a
/// time and before the agent gets its answer. They may use the server, except that they must not
/// wait for anything. An empty function is skipped.
struct ServerObserver {
    /// A message with the right token has arrived.
    std::function<void(const AgentMessage& message)> onMessage;
    /// Output has arrived; it comes after `onMessage` for the message that carried it.
    std::function<void(const OutputChunk& chunk)> onOutput;
    /// An archive was asked for.
    std::function<void(const std::string& name, bool found)> onPackage;
    /// The agent did something that it should not.
    std::function<void(const std::string& problem)> onProblem;
};

struct ServerSettings {
    std::string address = "127.0.0.1";      ///< numeric or a host name; IPv6 without brackets
    int port = 0;                           ///< 0: the system chooses
    std::filesystem::path certificateFile;  ///< with `keyFile`: HTTPS. PEM
    std::filesystem::path keyFile;
    std::string accessToken;                 ///< empty: any token is right
    std::filesystem::path packageDirectory;  ///< empty: no archive is found
    std::filesystem::path uploadDirectory;   ///< made when missing; empty: uploads are refused
    std::chrono::milliseconds pollTimeout = std::chrono::seconds(30);
    bool answerConnect = true;             ///< answer "connect" with "connected"
    bool releasePollsOnDisconnect = true;  ///< an agent that stops gets its poll answered at once
    bool keepOutput = true;  ///< false: decoded output is counted and observed, but not stored
    ServerObserver observer;
};

/// A profiling server for the agent: messages, packages and uploads, over HTTP or HTTPS.
///
/// It listens from the end of its constructor to the beginning of its destructor. It changes no
/// signal handling of the process; its threads have all signals blocked.
///
/// Threads: any member from any thread. Several servers live side by side.
class ProfilingServer {
public:
    /// Decides the answer to a message. Nothing: the server answers as usual.
    using Answer =
        std::function<std::optional<std::vector<AgentMessage>>(const AgentMessage& message)>;

    /// Deadline of the waits. It only serves to fail; nothing takes that long.
    static constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(60);

    /// Starts to listen.
    /// @throws std::runtime_error when address, certificate or key cannot be used
    explicit ProfilingServer(ServerSettings settings = {});

    /// Answers the polls that are being held, lets running requests end and stops. A client that
    /// neither sends nor closes can hold this up for the read time-out of 30 seconds at most.
    ~ProfilingServer();

    ProfilingServer(const ProfilingServer&) = delete;
    ProfilingServer& operator=(const ProfilingServer&) = delete;

    /// Returns the address to configure an agent with, for example "http://127.0.0.1:40123".
    std::string endpoint() const;

    int port() const;

    /// Queues one command, or several that leave together, for the next poll.
    void send(AgentMessage command);
    void send(std::vector<AgentMessage> commands);

    /// Sets who decides the answers from now on; an empty function gives that up. It is called from
    /// many threads at once, also for "connect" and "commands:get" and before a poll is held, and
    /// may use the server. While it blocks, the server cannot end.
    void answerWith(Answer answer);

    /// Answers the polls that are being held with an empty list.
    void releasePolls();

    /// Blocks until what has been recorded satisfies the predicate, which is called with the
    /// server's lock held and must not use the server.
    /// @return false when the time was over first; all waits below likewise
    bool waitUntil(const std::function<bool(const ServerRecords&)>& holds,
                   std::chrono::milliseconds timeout = kPatience) const;

    /// Blocks until `count` messages of the type have arrived with the right token.
    bool waitForMessage(const std::string& type, std::size_t count = 1,
                        std::chrono::milliseconds timeout = kPatience) const;

    /// Blocks until the operation has ended.
    /// @param occurrence which end to wait for when an id is used more than once, from 1
    /// @return nothing when the time was over first
    std::optional<OperationResult> waitForFinish(const std::string& id,
                                                 std::chrono::milliseconds timeout = kPatience,
                                                 std::size_t occurrence = 1) const;

    /// Blocks until the decoded output contains the text. Needs `keepOutput`.
    bool waitForOutput(const std::string& id, Channel channel, const std::string& text,
                       std::chrono::milliseconds timeout = kPatience) const;

    /// Blocks until so many files are stored.
    bool waitForUploads(std::size_t count, std::chrono::milliseconds timeout = kPatience) const;

    /// Blocks until so many polls are being held.
    bool waitForHeldPolls(std::size_t count = 1,
                          std::chrono::milliseconds timeout = kPatience) const;

    /// @name Copies of single records.
    /// @{
    Transcript transcript() const;
    std::size_t count(const std::string& type) const;  ///< messages with the right token
    std::optional<OperationRecord> operation(const std::string& id) const;
    std::string output(const std::string& id, Channel channel) const;
    std::vector<UploadRecord> uploads() const;
    std::vector<PackageRequest> packageRequests() const;
    std::vector<std::string> protocolErrors() const;
    /// @}

private:
    class Implementation;
    const std::unique_ptr<Implementation> implementation;
};

}  // namespace kolvan::test
