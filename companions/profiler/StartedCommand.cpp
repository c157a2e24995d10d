#include "companions/profiler/StartedCommand.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/Tasks.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kDestructorGrace{1000};
/// What is killed ends, though not at once on a busy machine; or later, when it waits for a device.
constexpr std::chrono::milliseconds kPatienceWithTheKilled{5000};
constexpr timespec kLookPeriod{0, 10'000'000};

struct Pipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Failure(ExitCode::Failed,
                      std::string("cannot prepare the command: ") + errorText(errno));
    }
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

/// What the new process does: waits for the gate, becomes the command, or tells why it cannot.
[[noreturn]] void becomeCommand(char* const* arguments, bool ownGroup, int gate, int failure) {
    if (ownGroup) {
        (void)::setpgid(0, 0);  // the parent does the same; whoever comes second fails for no harm
    }
    for (int number = 1; number < NSIG; ++number) {
        (void)std::signal(number, SIG_DFL);  // fails for those that always have their default
    }
    sigset_t none;
    ::sigemptyset(&none);
    (void)::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    char byte = 0;
    if (::read(gate, &byte, 1) == 1) {
        (void)::execvp(arguments[0], arguments);
        const int error = errno;
        (void)::write(failure, &error, sizeof error);  // nobody else is left to be told
    }
    ::_exit(127);
}

/// Whether there is a terminal that this process can be stopped and interrupted from.
bool hasTerminal() {
    return static_cast<bool>(FileDescriptor(::open("/dev/tty", O_RDONLY | O_CLOEXEC | O_NOCTTY)));
}

/// Whether a process is in our group and descends from us, as all do that the command leaves
/// behind.
bool isOurs(pid_t process) {
    if (::getpgid(process) != ::getpgrp()) {
        return false;
    }
    pid_t ancestor = parentOf(process);
    while (ancestor > 0 && ancestor != ::getpid()) {
        ancestor = parentOf(ancestor);
    }
    return ancestor > 0;
}

/// Sends a signal to a process that is ours, and to nobody who gets its number meanwhile. Fails for
/// one that has just ended.
void signalOurs(pid_t process, int number) {
    const FileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    if (!handle && errno == ENOSYS && isOurs(process)) {
        (void)::kill(process, number);  // Linux before 5.3 has nothing better
    } else if (handle && isOurs(process)) {
        (void)::syscall(SYS_pidfd_send_signal, handle.get(), number, nullptr, 0);
    }
}

std::string describe(int status) {
    if (WIFSIGNALED(status)) {
        const char* const name = ::sigabbrev_np(WTERMSIG(status));
        return "ended by signal " + std::to_string(WTERMSIG(status)) +
               (name == nullptr ? "" : " (SIG" + std::string(name) + ")");
    }
    return "ended with exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

StartedCommand::StartedCommand(const std::vector<std::string>& arguments)
    : program(arguments.front()), ownGroup(!hasTerminal()) {
    // What the command leaves behind becomes our child, so that its end is seen.
    (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::vector<std::string> copies = arguments;  // the call wants them writable
    std::vector<char*> pointers;
    pointers.reserve(copies.size() + 1);
    for (std::string& copy : copies) {
        pointers.push_back(copy.data());
    }
    pointers.push_back(nullptr);
    Pipe gatePipe = makePipe();
    Pipe failurePipe = makePipe();
    // Without what libraries do at a fork: a thread that one of them began here would have to end
    // before the command can be executed, and ends for good only when its tracer, who waits for
    // that command in `release`, has looked at it.
    child = ::_Fork();
    if (child == 0) {
        gatePipe.writeEnd.close();
        becomeCommand(pointers.data(), ownGroup, gatePipe.readEnd.get(),
                      failurePipe.writeEnd.get());
    }
    if (child < 0) {
        throw Failure(ExitCode::Failed, "cannot start '" + program + "': " + errorText(errno));
    }
    if (ownGroup) {
        (void)::setpgid(child, child);
    }
    gate = std::move(gatePipe.writeEnd);
    failure = std::move(failurePipe.readEnd);
}

StartedCommand::~StartedCommand() {
    terminate(kDestructorGrace);
}

void StartedCommand::release() {
    const char byte = 0;
    (void)::write(gate.get(), &byte, 1);  // a process that was killed shows itself by its end
    (void)gate.close();
    int error = 0;
    ssize_t count = 0;
    do {
        count = ::read(failure.get(), &error, sizeof error);
    } while (count < 0 && errno == EINTR);
    if (count == sizeof error) {
        throw Failure(ExitCode::NoTarget, "cannot start '" + program + "': " + errorText(error));
    }
}

bool StartedCommand::hasEnded() const noexcept {
    if (ending) {
        return true;
    }
    // Of a process that we trace, the system reports stops as well, whatever is asked for.
    siginfo_t info{};
    const bool told =
        ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == child;
    return told &&
           (info.si_code == CLD_EXITED || info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED);
}

std::string StartedCommand::terminate(std::chrono::milliseconds grace) noexcept {
    if (child <= 0) {
        return "";
    }
    reap();
    if (isLeft()) {
        signalAll(SIGTERM);
        signalAll(SIGCONT);  // who is stopped ends when he goes on
        if (!endsWithin(grace, 0)) {
            (void)endsWithin(kPatienceWithTheKilled, SIGKILL);
        }
    }
    return ending.value_or("could not be ended");
}

void StartedCommand::signalAll(int number) const noexcept {
    if (ownGroup) {
        (void)::kill(-child, number);  // fails for a group that has just ended
        return;
    }
    for (const pid_t process : processesBelow(::getpid())) {
        signalOurs(process, number);
    }
}

/// A group's number belongs to nobody else as long as one of its processes is left.
bool StartedCommand::isLeft() const noexcept {
    if (!ending || ownGroup) {
        return !ending || ::kill(-child, 0) == 0;
    }
    const auto processes = processesBelow(::getpid());
    return std::any_of(processes.begin(), processes.end(), isOurs);
}

/// @param number a signal to be sent at each look, or 0: who is about to be ended may start others
bool StartedCommand::endsWithin(std::chrono::milliseconds time, int number) noexcept {
    const auto deadline = Clock::now() + time;
    while (isLeft()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        if (number != 0) {
            signalAll(number);
        }
        // Not every process of the group is a child of ours, so that no signal tells of its end.
        (void)::nanosleep(&kLookPeriod, nullptr);
        reap();
    }
    return true;
}

void StartedCommand::reap() noexcept {
    int status = 0;
    for (pid_t ended = ::waitpid(-1, &status, WNOHANG); ended > 0;
         ended = ::waitpid(-1, &status, WNOHANG)) {
        if (ended == child) {
            ending = describe(status);
        }
    }
}

}  // namespace kolvan::profiler
