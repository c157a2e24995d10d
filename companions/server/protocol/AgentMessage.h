#pragma once

#include <map>
#include <string>
#include <vector>

namespace kolvan::server::protocol {

/// One message between server and agent: a type and named texts.
struct AgentMessage {
    std::string type;
    std::map<std::string, std::string> parameters;

    /// Value of a parameter; empty when the message does not carry it.
    std::string parameter(const std::string& name) const {
        const auto found = parameters.find(name);
        return found == parameters.end() ? std::string() : found->second;
    }

    friend bool operator==(const AgentMessage&, const AgentMessage&) = default;
};

/// Writes the messages as the body of a reply.
std::string replyJson(const std::vector<AgentMessage>& messages);

/// Builders of everything that is said to agents.
namespace messages {

/// Accepts the agent; belongs into the reply to "connect".
AgentMessage connected();

/// Runs the collector once.
/// @param args its arguments, separated by exactly one blank each
AgentMessage execute(const std::string& id, const std::string& args);

/// Starts a collection.
/// @param options the collector's option file: one option or value a line, no line end at the end
/// @param traceUploadDirectory name under which the traces are to come
AgentMessage startCollection(const std::string& id, const std::string& options,
                             const std::string& traceUploadDirectory);

/// Passes a command such as "stop" to the running collection.
AgentMessage collectionCommand(const std::string& id, const std::string& command);

/// Cancels everything that runs.
AgentMessage cancel();

/// Asks the agent to finish what runs, to say "disconnect" and to exit.
AgentMessage stop();

}  // namespace messages

}  // namespace kolvan::server::protocol
