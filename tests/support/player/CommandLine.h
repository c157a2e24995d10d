#pragma once

#include "tests/support/standin/ProfilingServer.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {

/// What the command line asks for.
struct CommandLine {
    bool help = false;
    ServerSettings server;
    std::optional<std::filesystem::path> scenarioFile;
    std::chrono::seconds stepPatience{120};
    std::optional<std::filesystem::path> portFile;
    std::optional<std::filesystem::path> summaryFile;
};

/// Reads the arguments after the program's name.
/// @throws std::invalid_argument with a sentence for the user
CommandLine readCommandLine(const std::vector<std::string>& arguments);

/// Returns the text of --help.
std::string usageText();

}  // namespace kolvan::test
