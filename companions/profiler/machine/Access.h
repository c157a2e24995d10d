#pragma once

#include "companions/profiler/machine/Machine.h"

#include <string>

#include <sys/types.h>

namespace kolvan::profiler {

/// What the system answers to who wants to look at a process. Errors are numbers as errno has them,
/// 0 for none.
struct Trial {
    int samplingError = 0;          ///< perf_event_open(2)
    int samplingInKernelError = 0;  ///< the same, the kernel's own work too
    int tracingError = 0;           ///< of the right to trace it
    int mappingsError = 0;  ///< of reading what it has mapped, without which it has no names
    pid_t tracer = 0;       ///< who traces it already; 0 for nobody
    bool isOwn = true;      ///< whether it belongs to this user, by all its user numbers
};

/// Tries a process, without doing anything to it: the event is closed at once, and its memory is
/// opened and not read.
/// @return with ESRCH as its errors where there is no such process
Trial tryProcess(pid_t process);

/// Whether and how a process can be profiled.
struct Access {
    enum class Engine { None, Perf, Ptrace };

    Engine engine = Engine::None;
    std::string reason;  ///< why not, or not in full; empty where nothing is missing
    std::string help;    ///< what would help then
};

/// Understands a trial, with the machine's settings.
Access judge(const Trial& trial, const Machine& machine);

}  // namespace kolvan::profiler
