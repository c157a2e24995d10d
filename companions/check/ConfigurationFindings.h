#pragma once

#include "companions/check/Finding.h"
#include "server/AgentConfiguration.h"

#include <optional>
#include <string>

namespace kolvan::check {

/// A configuration file that was looked at.
struct ExaminedConfiguration {
    /// As the agent reads it; none when the agent would not start with it.
    std::optional<cagnt1::AgentConfiguration> configuration;
    Findings findings;
};

/// Reads a configuration file by the agent's own code, and tells what is wrong with it, where, and
/// with which words the agent would end.
ExaminedConfiguration examineConfiguration(const std::string& file);

}  // namespace kolvan::check
