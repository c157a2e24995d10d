#pragma once

#include "tests/soak/Records.h"
#include "tests/support/standin/ArrivedMessage.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kolvan::test::soak {

/// What befalls an operation besides its own work.
enum class Fault {
    None,
    Failure,      ///< the collector ends with a code of failure, or cannot read its arguments
    Death,        ///< a signal kills the collector
    Cancel,       ///< it would run for ever, and is cancelled
    LostOutput,   ///< the first message of a channel is lost: its connection is reset
    LostFinish,   ///< "collector:finish" is lost
    ErrorStatus,  ///< the server answers a message with an error status
};

/// An operation of the scripted collector, made of random numbers, and what must come of it.
struct RandomOperation {
    /// @param fault `Cancel` is for runs only, no collection
    RandomOperation(std::string id, Fault fault, bool isCollection, Randomness& random);

    /// Number of bytes that the collector writes, on all channels.
    std::uint64_t bytes() const;

    std::string id;
    Fault fault = Fault::None;
    AgentMessage command;
    std::string hitType;               ///< type of the message that a fault of the network meets
    std::array<std::string, 3> texts;  ///< in the order of the server's channels
    std::string outcome;               ///< as `AgentScene::outcome` says it
    std::map<std::string, std::string> traces;  ///< text by name
};

}  // namespace kolvan::test::soak
