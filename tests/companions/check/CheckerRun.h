#pragma once

#include "tests/support/AgentProcess.h"

#include <string>
#include <vector>

namespace kolvan::test {

/// What a run of the checker has said.
struct CheckerAnswer {
    std::string ending;  ///< as `AgentProcess::waitForEnd` has it
    std::string output;
    std::string errors;
};

/// How to start the checker beside an installation, with the environment of its agent. Its program
/// and environment may be changed before `runChecker`.
AgentLaunch checkerLaunch(const AgentInstallation& installation,
                          const std::vector<std::string>& arguments);

/// Puts a tool that ends by starting another program (prlimit, for instance) before the checker.
void startThrough(AgentLaunch& launch, const std::vector<std::string>& tool);

/// Runs the checker to its end.
CheckerAnswer runChecker(const AgentLaunch& launch);

/// The text with every occurrence of `part` replaced.
std::string replaced(std::string text, const std::string& part, const std::string& by);

}  // namespace kolvan::test
