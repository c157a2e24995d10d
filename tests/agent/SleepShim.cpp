#include "tests/agent/SleepShim.h"

#include "tests/support/Gate.h"

#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <stdexcept>

#include <dlfcn.h>

namespace {

struct Substitute {
    // Guards active, holding, ended, interrupted, left and durations.
    std::mutex mutex;
    std::condition_variable changed;
    bool active = false;
    bool holding = false;
    std::size_t ended = 0;        // sleeps with a smaller position are over
    std::size_t interrupted = 0;  // of these, the ones up to here were cut short
    std::chrono::milliseconds left{0};
    std::vector<std::chrono::nanoseconds> durations;
};

Substitute& substitute() {
    static Substitute instance;
    return instance;
}

}  // namespace

// Takes the place of the C library's (or the sanitizer's) function in this program.
extern "C" int nanosleep(const timespec* duration, timespec* remaining) {
    Substitute& state = substitute();
    std::unique_lock lock(state.mutex);
    if (!state.active) {
        lock.unlock();
        using Function = int (*)(const timespec*, timespec*);
        return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "nanosleep"))(duration, remaining);
    }
    const std::size_t position = state.durations.size();
    state.durations.push_back(std::chrono::seconds(duration->tv_sec) +
                              std::chrono::nanoseconds(duration->tv_nsec));
    state.changed.notify_all();
    state.changed.wait(lock, [&] { return !state.holding || position < state.ended; });
    if (position >= state.interrupted) {
        return 0;
    }
    if (remaining != nullptr) {
        remaining->tv_sec = 0;
        remaining->tv_nsec = static_cast<long>(std::chrono::nanoseconds(state.left).count());
    }
    errno = EINTR;
    return -1;
}

namespace kolvan::test {

SleepShim::SleepShim() {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.active = true;
    state.holding = true;
    state.ended = 0;
    state.interrupted = 0;
    state.durations.clear();
}

SleepShim::~SleepShim() {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.active = false;
    state.holding = false;
    state.changed.notify_all();
}

void SleepShim::waitForSleep(std::size_t n) {
    Substitute& state = substitute();
    std::unique_lock lock(state.mutex);
    if (!state.changed.wait_for(lock, kDeadline, [&] { return state.durations.size() >= n; })) {
        throw std::runtime_error("nobody sleeps");
    }
}

void SleepShim::endSleeps() {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.ended = state.durations.size();
    state.changed.notify_all();
}

void SleepShim::interruptSleeps(std::chrono::milliseconds left) {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.left = left;
    state.interrupted = state.durations.size();
    state.ended = state.durations.size();
    state.changed.notify_all();
}

void SleepShim::holdNoLonger() {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.holding = false;
    state.changed.notify_all();
}

std::vector<std::chrono::nanoseconds> SleepShim::durations() {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    return state.durations;
}

}  // namespace kolvan::test
