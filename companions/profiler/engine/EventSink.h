#pragma once

#include "companions/profiler/base/Registers.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <sys/types.h>

namespace kolvan::profiler {

/// One look at a thread. Times are nanoseconds of CLOCK_MONOTONIC. What it points to is valid
/// during the call that hands it over only.
struct StackSample {
    std::uint64_t time = 0;
    pid_t process = 0;
    pid_t thread = 0;
    /// Of processor time that it stands for; 0 for a look at a thread that leaves its processor.
    std::uint64_t nanoseconds = 0;
    /// Where the thread is in the kernel, innermost first; empty where it is not, or not known.
    std::span<const std::uint64_t> kernelAddresses;
    /// Where it is, or will return to, in its program; none for threads of the kernel.
    std::optional<Registers> registers;
    /// A copy of its stack, from the stack pointer upwards.
    std::span<const std::byte> stack;
};

/// A file, or memory without one, that a process has mapped as code.
struct CodeMapping {
    pid_t process = 0;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;  ///< first address behind it
    std::uint64_t fileOffset = 0;
    std::uint64_t device = 0;  ///< as stat(2) gives it; 0 together with `inode` for no file
    std::uint64_t inode = 0;
    std::string path;  ///< as the process sees it; "[vdso]", "//anon" and the like for no file
};

/// What a thread does from a moment on.
enum class ThreadTurn {
    Runs,     ///< it got a processor
    Waits,    ///< it gave its processor up
    Runnable  ///< its processor was taken away, and it goes on when it gets one
};

/// Receives what an engine sees, in the order of time.
class EventSink {
public:
    virtual void onSample(const StackSample& sample) = 0;
    virtual void onMapping(const CodeMapping& mapping) = 0;
    /// A thread of `parent` has begun `thread`; a process, where `process` is another than
    /// `parent`: it begins with a copy of its parent's mappings.
    virtual void onStart(pid_t process, pid_t thread, pid_t parent) = 0;
    virtual void onName(pid_t process, pid_t thread, const std::string& name) = 0;
    /// The process executes another program: its mappings are gone, and it has one thread.
    virtual void onExec(pid_t process) = 0;
    virtual void onEnd(pid_t process, pid_t thread) = 0;
    virtual void onTurn(pid_t process, pid_t thread, ThreadTurn turn, std::uint64_t time) = 0;

protected:
    EventSink() = default;
    EventSink(const EventSink&) = default;
    EventSink& operator=(const EventSink&) = default;
    ~EventSink() = default;
};

}  // namespace kolvan::profiler
