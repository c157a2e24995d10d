#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// A command that was started in order to be measured, with standard input, output and error of
/// this process, and default signal actions. What it starts itself ends with it, unless that has
/// left the command's process group. It is never left behind.
///
/// Where there is a terminal, the command is in our group, as with time(1): Ctrl-C interrupts both,
/// Ctrl-Z stops both, "fg" lets both go on, and a pager behind us in a pipeline still has the
/// keyboard. Elsewhere it has a group of its own, which can be signalled as a whole.
///
/// SIGCHLD must not be ignored while such an object lives, and this process has no other children.
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

    /// Ends the command and everything that it has started in its group, with SIGTERM first and
    /// SIGKILL after `grace`; blocks for up to five seconds more where a process waits for a
    /// device.
    /// @return how the command ended, for people
    std::string terminate(std::chrono::milliseconds grace) noexcept;

private:
    void signalAll(int number) const noexcept;
    bool isLeft() const noexcept;
    bool endsWithin(std::chrono::milliseconds time, int number) noexcept;
    void reap() noexcept;

    const std::string program;
    const bool ownGroup;
    pid_t child = -1;
    FileDescriptor gate;     // a byte opens it
    FileDescriptor failure;  // brings the number of an error, or ends when the command runs
    std::optional<std::string> ending;
};

}  // namespace kolvan::profiler
