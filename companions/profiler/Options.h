#pragma once

#include "companions/profiler/engine/Engine.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// What the command line, together with its option file, asks for.
struct Options {
    enum class Mode { Collect, Command, Processes, Check, Version, Help };
    enum class Profile { Cpu, Wait, None };

    Mode mode = Mode::Collect;
    std::string resultDirectory;
    std::optional<pid_t> pid;
    std::vector<std::string> command;  ///< program and arguments; empty when a process id is given
    Profile profile = Profile::Cpu;
    EngineChoice engine = EngineChoice::Automatic;
    unsigned frequency = 999;  ///< looks a second: of the profile, or of the timeline without one
    bool children = true;      ///< also what the target starts
    bool inlined = false;      ///< source lines and inlined functions too
    std::optional<std::chrono::nanoseconds> duration;  ///< none: until the target ends
    std::string name = "collection";
    std::string controlCommand;             ///< "cancel", "stop" or "status"
    std::optional<int> feedbackDescriptor;  ///< where XML feedback goes
};

/// Understands the arguments (without the program's name) and reads the option file they name.
/// @throws Failure with `ExitCode::Usage` and a text that names the option
Options parseOptions(std::vector<std::string> arguments);

/// Splits an option file's text into one option or value per line.
/// @throws Failure with `ExitCode::Usage` for an empty line before the last one, a last line
///         without line feed (a cut file) and a NUL byte
std::vector<std::string> splitOptionLines(const std::string& text, const std::string& path);

/// The text of `--version`, line feed included.
std::string versionText();

/// The text of `--help`.
std::string usageText();

}  // namespace kolvan::profiler
