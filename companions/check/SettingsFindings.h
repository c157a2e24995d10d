#pragma once

#include "companions/check/Finding.h"
#include "server/AgentConfiguration.h"

#include <string>

namespace kolvan::check {

/// Tells what is wrong with the values of settings, or may surprise, without asking the network.
/// @param directory where the agent looks for its certificate file
Findings examineSettings(const cagnt1::AgentConfiguration& configuration,
                         const std::string& directory);

}  // namespace kolvan::check
