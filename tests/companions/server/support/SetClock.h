#pragma once

#include "companions/server/base/Clock.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace kolvan::test {

/// A clock that shows what the test has set it to. It begins at 2026-01-02T03:04:05.006Z.
class SetClock final : public server::Clock {
public:
    server::UtcTime utc() const override {
        return server::UtcTime(std::chrono::milliseconds(utcMs.load()));
    }
    std::chrono::steady_clock::time_point steady() const override {
        return std::chrono::steady_clock::time_point(std::chrono::milliseconds(steadyMs.load()));
    }

    /// Time passes.
    void advance(std::chrono::milliseconds duration) {
        utcMs += duration.count();
        steadyMs += duration.count();
    }

    /// Somebody sets the machine's clock; no time passes.
    void jump(std::chrono::milliseconds difference) { utcMs += difference.count(); }

private:
    std::atomic<std::int64_t> utcMs{1'767'323'045'006};
    std::atomic<std::int64_t> steadyMs{1'000'000};
};

}  // namespace kolvan::test
