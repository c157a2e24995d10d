#pragma once

#include "tests/support/player/Scenario.h"
#include "tests/support/standin/ProfilingServer.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kolvan::test {

/// What became of a scenario.
struct ScenarioOutcome {
    std::size_t stepsPlayed = 0;  ///< steps that happened, from the first
    std::string problem;          ///< why the rest did not; empty when all is well

    bool succeeded() const { return problem.empty(); }
};

/// Plays steps against the agent of a server.
///
/// A step is one call of `perform()`, so that steps may come from anywhere.
/// Threads: one at a time.
class ScenarioPlayer {
public:
    /// @param patience longest time for a step to happen
    /// @param interrupted asked now and then while waiting; true gives the scenario up
    ScenarioPlayer(ProfilingServer& server, std::chrono::milliseconds patience,
                   std::function<bool()> interrupted);

    /// Waits for the agent, performs all steps in order and waits until the agent has left.
    ScenarioOutcome play(const std::vector<ScenarioStep>& steps);

    /// Performs one step.
    /// @throws std::runtime_error when it does not happen
    void perform(const ScenarioStep& step);

    /// Asks an agent that is still there to cancel what it does and to leave, so that it does not
    /// stay behind after a scenario that failed. Waits a short while for it.
    void dismissAgent();

private:
    void sendFor(const ScenarioStep& step);
    void waitFor(const std::string& what, const std::function<bool(const ServerRecords&)>& holds);
    void checkEnd(const ScenarioStep& step);

    ProfilingServer& server;
    const std::chrono::milliseconds patience;
    const std::function<bool()> interrupted;
    std::size_t cancelsSent = 0;
    bool stopSent = false;
};

}  // namespace kolvan::test
