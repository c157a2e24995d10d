#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <sys/types.h>

namespace kolvan::check {

/// What the command line asks for.
struct Options {
    std::string directory;          ///< empty: the installed agent's
    std::string configurationFile;  ///< empty: the one in the directory
    bool connect = false;
    std::optional<pid_t> alive;
    std::optional<std::chrono::seconds> patience;
    bool json = false;
    bool version = false;
    std::optional<std::string> help;  ///< the text to show instead of doing anything
};

/// @throws std::invalid_argument with a sentence for the user
Options readOptions(int argc, const char* const* argv);

}  // namespace kolvan::check
