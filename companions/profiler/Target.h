#pragma once

#include "companions/profiler/Options.h"
#include "companions/profiler/StartedCommand.h"
#include "companions/profiler/timeline/ProcessProbe.h"
#include "companions/profiler/timeline/TreeCpu.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

namespace kolvan::profiler {

/// What is measured: a running process or a command of our own.
class Target {
public:
    /// Prepares the command, which waits until it is released; it is gone when this object is.
    /// @throws Failure when there is no such process, or the command cannot be started
    explicit Target(const Options& options);

    pid_t pid() const noexcept { return id; }
    const std::string& name() const noexcept { return commandLine; }

    /// Lets a command begin, which waits up to here.
    void release();

    /// The process, with the CPU time of what it has started, too.
    /// @param meanwhile called every few milliseconds: reading thousands of threads takes long
    /// @return nothing when it has ended
    std::optional<ProcessReading> read(const std::function<void()>& meanwhile);

    void lookForChildren() { tree.lookForChildren(); }

    /// All CPU time of a command that has ended but was not waited for yet.
    std::optional<std::uint64_t> finalCpuNanoseconds();

    bool commandHasEnded() const { return command && command->hasEnded(); }

    /// Ends the command, with what it has started.
    /// @return how it ended; empty when the target is none of ours
    std::string endCommand() const;

private:
    const std::unique_ptr<StartedCommand> command;
    const pid_t id;
    const std::string commandLine;
    ProcessProbe probe;
    TreeCpu tree;
};

}  // namespace kolvan::profiler
