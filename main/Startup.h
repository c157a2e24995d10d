#pragma once

#include "server/AgentConfiguration.h"

#include <string>

namespace cagnt1 {

/// The directory that contains the program, and everything that the program reads when it starts.
/// A relative path counts from the working directory; links are not resolved.
/// @param programPath the program's first argument
std::string installationDirectory(const std::string& programPath);

/// Path of the configuration file in `directory`.
std::string configurationPath(const std::string& directory);

/// The whole text of the configuration file at `path`; empty when it opens and cannot be read.
/// @throws std::runtime_error "Failed to open kolvan-agent.config.json"
std::string readConfigurationText(const std::string& path);

/// The settings in the text of a configuration file.
/// @throws std::runtime_error "Access token is empty" or "Server endpoint is empty"
AgentConfiguration checkedConfiguration(const std::string& text);

/// Reads and checks the configuration file of `directory`.
/// @throws std::runtime_error as the two functions above
AgentConfiguration readConfiguration(const std::string& directory);

/// Path of the certificate file, empty when the configuration names none. The file is looked for in
/// `directory`, even if its name begins with "/".
std::string certificatePath(const std::string& directory, const AgentConfiguration& configuration);

/// Directory of the target package in `directory`.
std::string targetDirectory(const std::string& directory);

}  // namespace cagnt1
