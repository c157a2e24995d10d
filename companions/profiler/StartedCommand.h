#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// A command that the collector starts, and ends when the collection ends first.
///
/// It runs in our process group with our standard streams, default signal dispositions and an empty
/// mask. The caller has SIGCHLD blocked, so that the end of the command can be waited for.
class StartedCommand {
public:
    /// Starts the program, which is searched for in PATH.
    /// @throws Failure with `ExitCode::NoTarget` when it cannot be started
    explicit StartedCommand(const std::vector<std::string>& arguments);
    StartedCommand(const StartedCommand&) = delete;
    StartedCommand& operator=(const StartedCommand&) = delete;

    /// Ends the command like `terminate` if nobody has done it yet.
    ~StartedCommand();

    pid_t id() const noexcept { return child; }

    /// Tells, without waiting for it, whether the command has ended.
    bool hasEnded() const noexcept;

    /// Ends the command if it still runs, first with SIGTERM, after `grace` with SIGKILL, and waits
    /// for it. @return how it ended, in words
    std::string terminate(std::chrono::milliseconds grace) noexcept;

private:
    bool endsWithin(std::chrono::milliseconds time) const noexcept;

    pid_t child = -1;
    std::optional<std::string> ending;  // set once the command was waited for
};

}  // namespace kolvan::profiler
