#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

namespace kolvan::test {

/// Stands in for `nanosleep()` in this process while it lives: keeps how long callers want to
/// sleep, and holds them until it is told. One at a time.
class SleepShim {
public:
    /// Callers are held from now on.
    SleepShim();

    /// Lets everybody go.
    ~SleepShim();

    SleepShim(const SleepShim&) = delete;
    SleepShim& operator=(const SleepShim&) = delete;

    /// Blocks until the n-th sleep (from 1) has begun.
    /// @throws std::runtime_error when it does not begin within the deadline
    void waitForSleep(std::size_t n);

    /// Ends the sleeps that have begun; later ones are held again.
    void endSleeps();

    /// Lets the sleeps that have begun be cut short by a signal, with this time left.
    void interruptSleeps(std::chrono::milliseconds left);

    /// Ends every sleep at once from now on.
    void holdNoLonger();

    /// How long callers wanted to sleep, in the order of their calls.
    std::vector<std::chrono::nanoseconds> durations();
};

}  // namespace kolvan::test
