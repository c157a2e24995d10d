#pragma once

#include "server/AgentConfiguration.h"

#include <string>

namespace cagnt1 {

/// Directory of the program, in which everything that it reads at start lies: the parent of its
/// own path, made absolute against the working directory. Links are not resolved.
/// @param programPath the program's first argument
std::string installationDirectory(const std::string& programPath);

/// Reads and checks the configuration file of `directory`.
/// @throws std::runtime_error "Failed to open kolvan-agent.config.json", "Access token is empty"
///         or "Server endpoint is empty"
AgentConfiguration readConfiguration(const std::string& directory);

/// Path of the certificate file in `directory`, which a name that begins with "/" does not leave;
/// empty when the configuration names none.
std::string certificatePath(const std::string& directory, const AgentConfiguration& configuration);

/// Directory of the target package in `directory`.
std::string targetDirectory(const std::string& directory);

}  // namespace cagnt1
