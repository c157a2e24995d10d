#pragma once

#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/protocol/Base64Decoder.h"

#include <string>
#include <string_view>

namespace kolvan::test {

// What is said and heard, in the server's own words.
using server::protocol::AgentMessage;
using server::protocol::replyJson;
namespace messages = server::protocol::messages;

/// A message of an agent, read by the server's own code and kept in one piece.
struct ArrivedMessage {
    AgentMessage message;  ///< without its output
    std::string output;    ///< of a collector, decoded
};

/// Reads one message, {"messageType": ..., "messageParameters": {...}}.
/// @throws server::protocol::ProtocolError when it is none
ArrivedMessage readMessage(std::string_view json);

}  // namespace kolvan::test
