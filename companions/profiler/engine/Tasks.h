#pragma once

#include "companions/profiler/engine/EventSink.h"

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// The threads of a process right now; none when it has ended.
std::vector<pid_t> threadsOf(pid_t process);

/// All processes of this machine right now, in the order of their numbers.
std::vector<pid_t> allProcesses();

/// A process and all that descend from it right now, parents first.
std::vector<pid_t> processesBelow(pid_t process);

/// The process that a thread belongs to, and the parent of a process; 0 when it has ended.
pid_t processOfThread(pid_t thread);
pid_t parentOf(pid_t process);

/// Who traces a thread, and whether it has ended, or is about to: nobody can look at it then.
pid_t tracerOf(pid_t thread);
bool hasEnded(pid_t thread);

/// The name of a thread; empty when it has ended.
std::string nameOf(pid_t process, pid_t thread);

/// Nanoseconds of processor time of a thread so far; 0 when it has ended, or the system does not
/// count.
std::uint64_t processorTimeOf(pid_t process, pid_t thread);

/// The command line of a process, with blanks between its arguments, or its name where there is
/// none; empty when it has ended.
std::string commandLineOf(pid_t process);

/// What a process has mapped as code right now; none where the system does not tell.
std::vector<CodeMapping> codeMappingsOf(pid_t process);

/// Understands one line of /proc/PID/maps. @return false for memory that is no code, and for
/// anything else than such a line
bool parseMapping(const std::string& line, CodeMapping& mapping);

}  // namespace kolvan::profiler
