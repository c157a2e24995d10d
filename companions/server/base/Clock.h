#pragma once

#include "companions/server/base/UtcTime.h"

#include <chrono>

namespace kolvan::server {

/// Where a part of the server asks for the time, so that a test can decide what time it is.
///
/// Threads: any member from any thread.
class Clock {
public:
    virtual ~Clock() = default;

    /// The time of day, for what people read and for what outlives the process. It jumps when
    /// somebody sets the machine's clock: nothing may be put in order by it.
    virtual UtcTime utc() const = 0;

    /// A time that only goes on, for how long something has lasted. It means nothing in another
    /// process.
    virtual std::chrono::steady_clock::time_point steady() const = 0;
};

/// The machine's clock.
class SystemClock final : public Clock {
public:
    UtcTime utc() const override;
    std::chrono::steady_clock::time_point steady() const override;
};

}  // namespace kolvan::server
