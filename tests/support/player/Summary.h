#pragma once

#include "tests/support/player/Scenario.h"
#include "tests/support/player/ScenarioPlayer.h"
#include "tests/support/standin/ServerRecords.h"

#include <string>
#include <vector>

namespace kolvan::test {

/// Writes down, as JSON, what a run was: agent, packages, operations with the messages and bytes of
/// every channel, uploads, the steps of the scenario and whether each happened, and problems.
/// @param steps empty when there was no scenario
std::string summaryJson(const std::string& endpoint, const ServerRecords& records,
                        const std::vector<ScenarioStep>& steps, const ScenarioOutcome& outcome);

}  // namespace kolvan::test
