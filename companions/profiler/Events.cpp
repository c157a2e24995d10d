#include "companions/profiler/Events.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <string>

#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

[[noreturn]] void failSystem(const std::string& what) {
    throw Failure(ExitCode::Failed, what + ": " + errorText(errno));
}

timespec toTimespec(std::chrono::nanoseconds time) {
    return {time.count() / 1'000'000'000, time.count() % 1'000'000'000};
}

}  // namespace

FileDescriptor startTimer(Clock::time_point first, std::chrono::nanoseconds period) {
    FileDescriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    const itimerspec when{toTimespec(period), toTimespec(first.time_since_epoch())};
    if (!timer || ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
        failSystem("cannot start a timer");
    }
    return timer;
}

std::uint64_t expirations(const FileDescriptor& timer) {
    std::uint64_t count = 0;
    return ::read(timer.get(), &count, sizeof count) == sizeof count ? count : 0;
}

FileDescriptor receiveSignals() {
    // Whoever starts programs in the background or ignores its own children may have left these
    // ignored, and what is ignored does not arrive.
    for (const int number : {SIGINT, SIGTERM, SIGCHLD}) {
        (void)std::signal(number, SIG_DFL);  // fails for unknown numbers only
    }
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        ::sigaddset(&signals, number);
    }
    if (const int error = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr); error != 0) {
        errno = error;
        failSystem("cannot block signals");
    }
    FileDescriptor descriptor(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!descriptor) {
        failSystem("cannot receive signals");
    }
    return descriptor;
}

}  // namespace kolvan::profiler
