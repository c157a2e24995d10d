#pragma once

#include "companions/server/accounts/Tokens.h"
#include "companions/server/base/Sha256.h"
#include "companions/server/collections/OutputFiles.h"
#include "companions/server/store/Store.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kolvan::server::agents {

/// Who says that a message is its own.
struct Sender {
    std::string uuid;         ///< "agentUuid"
    std::string accessToken;  ///< "accessToken"
    std::string address;      ///< where it came from
};

/// What the server does with the messages of agents. Knows nothing of HTTP and JSON.
///
/// Threads: any member from any thread. All of them block on the disk: call them on the pool.
/// @throws StoreError, and std::system_error where output cannot be written
class AgentService {
public:
    /// Commands that leave in one reply. More than an agent is ever given at a time, and few enough
    /// for a reply of a sensible size.
    static constexpr std::size_t kCommandsOfAReply = 64;

    /// All of them outlive this one.
    AgentService(Store& recordStore, Tokens& agentTokens, const OutputFiles& outputFiles);

    /// Accepts an agent, or refuses it and writes that down.
    /// @return nothing when its token is unknown or revoked
    std::optional<Agent> connect(const Sender& sender, const std::string& hostName);

    /// Tells which agent sends a message. Once an agent is known, nothing is read for it until
    /// somebody's access ends.
    /// @return nothing for one that has not connected, or with another token, or with one that was
    ///     revoked
    std::optional<AgentId> recognise(const Sender& sender);

    /// Takes what an agent is to be told next. One whose token was revoked is told nothing.
    /// @return nothing when the sender has said "disconnect"
    std::optional<std::vector<Operation>> takeCommands(const Sender& sender, const AgentId& agent);

    /// Tells whether an agent's token is valid, for its uploads, which carry none. Nothing is read
    /// for an agent that is asked for again until somebody's access ends.
    bool isTrusted(const AgentId& agent);

    /// Keeps a piece of an operation's output. Whoever follows it hears of it from `announce`.
    /// @return whether the agent has such an operation
    bool append(const AgentId& agent, const OperationId& operation, OutputChannel channel,
                std::string_view bytes);

    /// Records how much of a channel there is now, and tells those who follow it.
    void announce(const OperationId& operation, OutputChannel channel);

    /// Records the end of an operation. What comes a second time changes nothing. An agent tells it
    /// once: when it cannot be recorded, `recordEnds` tries again.
    void finish(const AgentId& agent, const OperationId& operation, std::optional<int> exitCode,
                const std::string& errorMessage);

    /// Writes down that an agent could not handle a message.
    void reportError(const Sender& sender, const AgentId& agent, const std::string& text);

    /// Records that an agent has said "disconnect": its poll is answered, whether it is held or
    /// still on its way.
    void leave(const Sender& sender, const AgentId& agent);

    /// Writes down which agents were heard since the last call. To be called every few seconds: a
    /// crash loses no more than when they were last seen.
    void recordSeen();

    /// Records the ends that could not be recorded when they came, with the line that says where
    /// output is missing. To be called every few seconds: until then the agent is thought to be
    /// busy, and gets no other collection.
    void recordEnds();

private:
    /// The end of an operation, as its agent tells it.
    struct End {
        AgentId agent;
        std::optional<int> exitCode;
        std::string errorMessage;
    };

    struct Known {
        AgentId agent;
        Sha256 token;
    };

    std::optional<AgentId> find(const Sender& sender);
    void record(const OperationId& operation, const End& end);
    void remember(const std::string& uuid, const Known& known, std::uint64_t before);
    std::uint64_t endsSoFar() const;
    void forgetAll();
    void forget(const std::string& uuid);
    bool isRunning(const AgentId& agent, const OperationId& operation) const;

    Store& store;
    Tokens& tokens;
    const OutputFiles& outputs;

    mutable std::mutex mutex;  // guards all that follows but onEndOfAccess
    std::unordered_map<std::string, Known> agentsByUuid;
    std::unordered_set<AgentId> trusted;               // whose tokens are known to be valid
    std::uint64_t endsOfAccess = 0;                    // each empties agentsByUuid and trusted
    std::unordered_map<OperationId, AgentId> running;  // those that the store knows as confirmed
    std::unordered_set<AgentId> seen;                  // since they were recorded last
    std::unordered_map<OperationId, End> unrecorded;   // that could not be recorded so far

    std::unique_ptr<Subscription> onEndOfAccess;  // goes first: it calls this object
};

}  // namespace kolvan::server::agents
