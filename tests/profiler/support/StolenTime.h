#pragma once

namespace kolvan::test {

/// How long the processors of this machine did not belong to any thread, although a thread was on
/// them: they had to wait for those of the machine below, where this is a virtual one, and they
/// handled interrupts, as those of a network that other tests keep busy. A timer that expires
/// meanwhile meets the thread, whose own time may stand still; or no timer expires, and it goes on.
class StolenTime {
public:
    /// Begins to measure.
    StolenTime();

    /// Nanoseconds since then, of all processors together; rather too many than too few, because
    /// the system counts in larger units.
    double nanoseconds() const;

private:
    double before;
};

}  // namespace kolvan::test
