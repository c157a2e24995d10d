#pragma once

namespace kolvan::test {

/// How long the processors of this machine had to wait for those of the machine below, where it is
/// a virtual one. No timer expires meanwhile, though a thread's time may go on.
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
