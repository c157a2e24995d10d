#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::test {

/// One message between server and agent: a type and a flat map of text parameters.
struct ServerMessage {
    std::string type;
    std::map<std::string, std::string> parameters;

    /// Returns the value of a parameter, or an empty text when the message does not carry it.
    std::string parameter(const std::string& name) const;

    /// Tells whether the message carries the parameter at all.
    bool has(const std::string& name) const;
};

/// Builders of everything a server says to an agent.
namespace messages {

/// Accepts the agent; belongs into the answer to "connect".
ServerMessage connected();

/// Runs the collector once.
/// @param args the collector's arguments, separated by exactly one blank each
ServerMessage execute(const std::string& id, const std::string& args);

/// Starts a collection.
/// @param options the collector's option file: one option or value per line, no line end at the end
/// @param traceUploadDirectory where the traces are to arrive, relative to the upload directory
ServerMessage startCollection(const std::string& id, const std::string& options,
                              const std::string& traceUploadDirectory);

/// Passes a command such as "status" to the running collection.
ServerMessage collectionCommand(const std::string& id, const std::string& command);

/// Cancels the running collection; the agent answers with "collector:operations:cancelled".
ServerMessage cancel();

/// Asks the agent to finish what is running, to say "disconnect" and to exit.
ServerMessage stop();

}  // namespace messages

/// Reads one message object, {"messageType": ..., "messageParameters": {...}}.
/// A parameter that is not a text reads as the empty text; of a repeated one, the last counts.
/// @return nothing when the text is no such object
std::optional<ServerMessage> decodeMessage(std::string_view json);

/// Writes an answer, {"messages":[...]}.
std::string encodeMessages(const std::vector<ServerMessage>& messages);

}  // namespace kolvan::test
