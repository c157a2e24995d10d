#pragma once

#include "tests/faults/Crowd.h"

#include <iosfwd>
#include <string>
#include <vector>

// What the agent survives one at a time it must also survive together. Every crossing is a crowd of
// operations under some limits, more than there is room for where they are low, and something that
// happens while the crowd runs or waits. The audit is always the same: tests/faults/Crowd.h.
namespace kolvan::test {

/// What happens while a crowd runs or waits for room. A collection that began before the crowd runs
/// all the time where the event has to do with collections.
enum class CrowdEvent {
    Nothing,
    Command,    ///< the collection is passed a command
    Cancel,     ///< the server cancels all operations
    Accept,     ///< the server accepts the agent again
    Stop,       ///< the server stops the agent
    Interrupt,  ///< a signal does
    LosePoll    ///< the connection over which the agent asks for commands breaks
};

/// How the server answers.
enum class ServerMood {
    Prompt,
    Slow  ///< the messages of operations one at a time, and each after a rest
};

/// What happens together.
struct Crossing {
    std::string name;
    CrowdEvent event = CrowdEvent::Nothing;
    ServerMood mood = ServerMood::Prompt;
    DescriptorLimits limits = {4096, 4096};
};

/// Prints a crossing as the parameter of a test.
void PrintTo(const Crossing& crossing, std::ostream* stream);

/// The rows of the table, each under each of the limits.
std::vector<Crossing> crossingsUnder(const std::vector<DescriptorLimits>& allLimits);

/// Lets an agent live through a crossing with a crowd of that size. Nothing of the crowd ends
/// before the event has had its effect: the agent cannot wait for the one to do the other.
void expectSurvived(const Crossing& crossing, int size);

}  // namespace kolvan::test
