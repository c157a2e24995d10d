#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// A command that was started in order to be measured, with standard input, output and error of
/// this process, default signal actions and a process group of its own, so that what it starts
/// itself can be ended with it. It is never left behind.
///
/// SIGCHLD must not be ignored while such an object lives.
class StartedCommand {
public:
    /// Prepares a process that waits in front of the command, so that whoever wants to watch it can
    /// do so from its first instruction.
    /// @param arguments program (looked up in PATH) and its arguments; at least one
    /// @throws Failure when there is no process to be had
    explicit StartedCommand(const std::vector<std::string>& arguments);
    StartedCommand(const StartedCommand&) = delete;
    StartedCommand& operator=(const StartedCommand&) = delete;
    ~StartedCommand();

    pid_t id() const noexcept { return child; }

    /// Lets the process become the command.
    /// @throws Failure with `ExitCode::NoTarget` when it cannot be executed
    void release();

    /// Whether the command itself has ended; what it started may go on.
    bool hasEnded() const noexcept;

    /// Ends the command and everything in its group, with SIGTERM first and SIGKILL after `grace`;
    /// blocks for up to five seconds more where a process waits for a device.
    /// @return how the command ended, for people
    std::string terminate(std::chrono::milliseconds grace) noexcept;

private:
    bool groupIsLeft() const noexcept;
    bool groupEndsWithin(std::chrono::milliseconds time) noexcept;
    void reap() noexcept;

    const std::string program;
    pid_t child = -1;
    FileDescriptor gate;     // a byte opens it
    FileDescriptor failure;  // brings the number of an error, or ends when the command runs
    bool hasTerminal = false;
    std::optional<std::string> ending;
};

}  // namespace kolvan::profiler
