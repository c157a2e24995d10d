#include "basekit2/process/BecomeProgram.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace basekit2::process {

namespace {

// As a shell reports a program that could not be run. Nobody sees it: the report comes first.
constexpr int kNotRun = 127;

// The kernel's own form of a signal set, one bit each, and its size as the calls want it.
using KernelSignalSet = std::uint64_t;

[[noreturn]] void fail(const ProgramStart& start, int error) noexcept {
    // One int fits any pipe; should the parent be gone, there is nobody to tell.
    (void)!::write(start.report, &error, sizeof(error));
    ::_exit(kNotRun);
}

void require(const ProgramStart& start, bool succeeded) noexcept {
    if (!succeeded) {
        fail(start, errno);
    }
}

// Past the C library, which hides two signals of its own: a parent that was started with them
// ignored would hand that on.
void resetSignals() noexcept {
    constexpr std::array<std::uint64_t, 4> kDefaultAction{};  // handler, flags, restorer, mask
    for (int signal = 1; signal < NSIG; ++signal) {
        // Fails for the two that cannot be changed.
        (void)::syscall(SYS_rt_sigaction, signal, kDefaultAction.data(), nullptr,
                        sizeof(KernelSignalSet));
    }
    constexpr KernelSignalSet kNone = 0;
    // Cannot fail: the arguments are valid.
    (void)::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &kNone, nullptr, sizeof(kNone));
}

void closeFrom(const ProgramStart& start, int first) noexcept {
    if (::close_range(static_cast<unsigned>(first), ~0U, 0) == 0) {
        return;
    }
    // Linux has that call since 5.9. Without it the C library looks the descriptors up in this
    // directory, and ends the process where it cannot: so that is tried before.
    require(start, ::access("/proc/self/fd", R_OK) == 0);
    ::closefrom(first);
}

// Returns the number that the report has now.
int layOutDescriptors(const ProgramStart& start) noexcept {
    // The lowest free number is taken, and that is the one just closed. So this works also where
    // the parent has used up its descriptors.
    (void)::close(STDIN_FILENO);
    require(start, ::open("/dev/null", O_RDONLY) == STDIN_FILENO);
    for (const DescriptorMapping& mapping : start.descriptors) {
        require(start, ::dup2(mapping.source, mapping.target) == mapping.target);
    }
    const int report = start.firstClosed;
    require(start, ::dup3(start.report, report, O_CLOEXEC) == report);
    closeFrom(start, report + 1);
    return report;
}

// Somebody may have lowered our hard limit since we raised the soft one. The child then starts with
// as much as it may have.
void setSoftLimit(const ProgramStart& start, rlim_t limit) noexcept {
    rlimit limits{};
    require(start, ::getrlimit(RLIMIT_NOFILE, &limits) == 0);
    limits.rlim_cur = std::min(limit, limits.rlim_max);
    require(start, ::setrlimit(RLIMIT_NOFILE, &limits) == 0);
}

// Whether the search for a program goes on: there is none at this place.
bool isElsewhere(int error) noexcept {
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == ESTALE ||
           error == ENODEV || error == ETIMEDOUT;
}

// Returns why none of the programs runs: a permission that is missing tells more than a file.
int runFirst(const ProgramStart& start) noexcept {
    int reason = ENOENT;
    for (const char* const* program = start.programs; *program != nullptr; ++program) {
        (void)::execve(*program, start.arguments, start.environment);
        if (!isElsewhere(errno)) {
            return errno;
        }
        if (reason != EACCES) {
            reason = errno;
        }
    }
    return reason;
}

}  // namespace

void becomeProgram(ProgramStart start) noexcept {
    // Signals stay blocked until nothing can be interrupted any more: a handler of the parent's
    // must not run here.
    start.report = layOutDescriptors(start);
    if (start.workingDirectory != nullptr) {
        require(start, ::chdir(start.workingDirectory) == 0);
    }
    if (start.descriptorLimit) {
        setSoftLimit(start, *start.descriptorLimit);
    }
    resetSignals();
    fail(start, runFirst(start));
}

}  // namespace basekit2::process
