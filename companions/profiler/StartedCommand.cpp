#include "companions/profiler/StartedCommand.h"

#include "companions/profiler/base/ExitCode.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kDestructorGrace{1000};

class SpawnAttributes {
public:
    SpawnAttributes() {
        if (::posix_spawnattr_init(&attributes) != 0) {
            throw Failure(ExitCode::Failed, "cannot prepare the start of the command");
        }
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        // These only store their arguments and cannot fail.
        (void)::posix_spawnattr_setsigmask(&attributes, &none);
        (void)::posix_spawnattr_setsigdefault(&attributes, &all);
        (void)::posix_spawnattr_setflags(&attributes,
                                         POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() {
        (void)::posix_spawnattr_destroy(&attributes); /* frees nothing on Linux */
    }

    const posix_spawnattr_t* get() const noexcept { return &attributes; }

private:
    posix_spawnattr_t attributes{};
};

std::string describe(int status) {
    if (WIFSIGNALED(status)) {
        const char* const name = ::sigabbrev_np(WTERMSIG(status));
        return "ended by signal " + std::to_string(WTERMSIG(status)) +
               (name == nullptr ? "" : " (SIG" + std::string(name) + ")");
    }
    return "ended with exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

StartedCommand::StartedCommand(const std::vector<std::string>& arguments) {
    std::vector<std::string> copies = arguments;  // the call wants them writable
    std::vector<char*> pointers;
    for (std::string& copy : copies) {
        pointers.push_back(copy.data());
    }
    pointers.push_back(nullptr);
    const SpawnAttributes attributes;
    const int error = ::posix_spawnp(&child, pointers.front(), nullptr, attributes.get(),
                                     pointers.data(), environ);
    if (error != 0) {
        child = -1;
        throw Failure(ExitCode::NoTarget,
                      "cannot start '" + arguments.front() + "': " + std::strerror(error));
    }
}

StartedCommand::~StartedCommand() {
    terminate(kDestructorGrace);
}

bool StartedCommand::hasEnded() const noexcept {
    siginfo_t info{};
    return ending.has_value() ||
           (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid == child);
}

std::string StartedCommand::terminate(std::chrono::milliseconds grace) noexcept {
    if (ending) {
        return *ending;
    }
    // The child was not waited for yet, so its number cannot belong to anybody else.
    if (!hasEnded()) {
        (void)::kill(child, SIGTERM);  // fails only for a child that has just ended
        if (!endsWithin(grace)) {
            (void)::kill(child, SIGKILL);
        }
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ending = describe(status);
    return *ending;
}

bool StartedCommand::endsWithin(std::chrono::milliseconds time) const noexcept {
    sigset_t childEnds;
    ::sigemptyset(&childEnds);
    ::sigaddset(&childEnds, SIGCHLD);
    const auto deadline = Clock::now() + time;
    while (!hasEnded()) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            return false;
        }
        const auto nanoseconds = std::chrono::nanoseconds(left).count();
        const timespec timeout{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
        (void)::sigtimedwait(&childEnds, nullptr, &timeout);  // the loop looks for itself
    }
    return true;
}

}  // namespace kolvan::profiler
