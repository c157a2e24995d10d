#pragma once

#include "tests/support/AgentProcess.h"

#include <string>

namespace kolvan::test {

/// Makes an agent that is to be started write its standard output into a file, a named pipe or a
/// device, as a shell would. `AgentProcess::output()` stays empty then.
/// @param file its path, which holds no quote
void redirectLog(AgentLaunch& launch, const AgentInstallation& installation,
                 const std::string& file);

}  // namespace kolvan::test
