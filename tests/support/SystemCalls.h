#pragma once

#include <cstdint>

#include <sys/types.h>

namespace kolvan::test {

/// Follows the main thread of a program from one system call to the next: a moment of a program's
/// life that is the same in every run.
///
/// Threads: used by the thread that has started the program, which the system calls its tracer.
class SystemCalls {
public:
    /// @param program started with `AgentLaunch::traced`; it has not begun to run
    /// @throws std::system_error when it cannot be followed
    explicit SystemCalls(pid_t program);

    /// Lets the program run on, followed by nobody.
    ~SystemCalls();

    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    /// Lets the main thread run until it is about to make its next system call.
    /// @throws std::runtime_error when it ends before
    void advance();

    /// Number of the call that the main thread is about to make, as in <sys/syscall.h>, and the
    /// first argument.
    std::uint64_t number() const { return callNumber; }
    std::uint64_t argument() const { return firstArgument; }

private:
    void runToNextStop() const;

    pid_t thread;
    std::uint64_t callNumber = 0;
    std::uint64_t firstArgument = 0;
};

}  // namespace kolvan::test
