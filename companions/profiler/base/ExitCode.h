#pragma once

#include <stdexcept>
#include <string>

namespace kolvan::profiler {

/// How a run of the program ended, as its exit status. `--help` lists the same values.
enum class ExitCode : int {
    Whole = 0,         ///< the collection is whole, or the command was carried out
    Failed = 1,        ///< something else went wrong
    Usage = 2,         ///< the options make no sense
    NoTarget = 3,      ///< no such process, or the command could not be started
    NoCollection = 4,  ///< no collection is running in that directory
    Cancelled = 5,     ///< the collection was cancelled or ended by a signal; its trace is whole
    NotWritten = 6,    ///< the results could not be written, a full disk for instance
};

/// A failure that ends the run: the text for standard error and the exit status.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& text)
        : std::runtime_error(text), code(exitCode) {}

    ExitCode exitCode() const noexcept { return code; }

private:
    ExitCode code;
};

}  // namespace kolvan::profiler
