#pragma once

#include "companions/profiler/engine/EventSink.h"

#include <cstdint>
#include <map>

#include <sys/types.h>

namespace kolvan::profiler {

/// Tells a sink what processes have mapped as code and what their threads are called, for an engine
/// that is not told: libraries come and go, and threads name themselves, without a stop.
class ProcessNews {
public:
    /// Tells all of a process that has just begun, or executes another program.
    void introduce(pid_t process, EventSink& sink);

    /// Tells what is new since the last time, if that is long enough ago at `time`, nanoseconds of
    /// CLOCK_MONOTONIC: reading it takes long where there are many mappings or threads.
    void refresh(pid_t process, std::uint64_t time, EventSink& sink);

    bool isKnown(pid_t process) const { return processes.count(process) > 0; }

    void forget(pid_t process) { processes.erase(process); }

private:
    /// What a process has mapped as code, by address.
    struct Known {
        std::map<std::uint64_t, CodeMapping> code;
        std::uint64_t due = 0;  // nanoseconds; when it is worth another reading
    };

    void tell(pid_t process, EventSink& sink);

    std::map<pid_t, Known> processes;
};

}  // namespace kolvan::profiler
