#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// One thread as it was seen at one moment. Counts run since the thread's beginning.
struct ThreadReading {
    pid_t id = 0;
    std::string name;
    char state = '?';  ///< the kernel's letter: R, S, D, T, t, Z, X, I
    std::uint64_t cpuNanoseconds = 0;
    std::uint64_t voluntarySwitches = 0;
    std::uint64_t involuntarySwitches = 0;
};

/// Memory in KiB.
struct MemoryReading {
    std::uint64_t resident = 0;
    std::uint64_t size = 0;
};

/// Bytes since the process began: through system calls, and from and to storage.
struct IoReading {
    std::uint64_t read = 0;
    std::uint64_t written = 0;
    std::uint64_t storageRead = 0;
    std::uint64_t storageWritten = 0;
};

/// A process as it was seen at one moment.
struct ProcessReading {
    std::uint64_t cpuNanoseconds = 0;  ///< all threads, also those that have ended
    std::vector<ThreadReading> threads;
    std::optional<MemoryReading> memory;  ///< absent for kernel threads
    std::optional<IoReading> io;          ///< absent where the system forbids reading it
};

/// Understands the text of a "stat" file: name, state and CPU time in the kernel's clock ticks.
/// Names may contain blanks and brackets. @return false for anything else
bool parseStat(std::string_view text, long ticksPerSecond, ThreadReading& reading);

/// Finds the number after "KEY:" at the beginning of a line, as "status" and "io" files have them.
std::optional<std::uint64_t> findValue(std::string_view text, std::string_view key);

/// Reads one process from procfs. Holds on to the process's directory, so that a process number
/// that was given away again is never mistaken for the target.
class ProcessProbe {
public:
    /// @throws Failure with `ExitCode::NoTarget` when there is no such process
    explicit ProcessProbe(pid_t pid);

    /// Reads everything once.
    /// @param meanwhile called every few milliseconds: reading thousands of threads takes long
    /// @return nothing when the process has ended (a process that has ended but was not waited for
    ///         counts as ended)
    std::optional<ProcessReading> read(const std::function<void()>& meanwhile = [] {});

    /// CPU time of the process so far; also of one that has ended while nobody has waited for it.
    std::optional<std::uint64_t> cpuNanoseconds() const;

private:
    std::optional<std::string_view> readFile(const std::string& name);
    std::optional<ThreadReading> readThread(const std::string& id);
    std::optional<IoReading> readIo();

    const pid_t target;
    const long ticksPerSecond;
    FileDescriptor directory;
    std::string buffer;  // contents of the file that was read last
};

}  // namespace kolvan::profiler
