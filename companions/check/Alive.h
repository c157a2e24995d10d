#pragma once

#include "companions/check/WatchedProcess.h"

#include <chrono>
#include <string>

namespace kolvan::check {

/// What was seen of an agent.
struct AliveAnswer {
    bool alive = false;
    std::string reason;  ///< "connection", "connections", "children" or "alone"
    std::string text;    ///< a whole sentence
};

/// Finds out whether an agent still has its server. One that does holds a connection nearly always,
/// and the gaps between two requests are short; one that has lost its server and has children can
/// still report what they do. An agent that has neither waits for nothing any more.
///
/// Blocks until a sign of life is seen, and for `patience` where there is none.
/// @throws as the members of `WatchedProcess`
AliveAnswer watchForLife(const WatchedProcess& agent, std::chrono::milliseconds patience);

/// The address that the configuration of the agent names; empty when it cannot be read.
std::string serverOf(const WatchedProcess& agent);

}  // namespace kolvan::check
