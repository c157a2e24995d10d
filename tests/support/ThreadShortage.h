#pragma once

namespace kolvan::test {

/// Lets no thread of this process be started between `begin()` and `end()`, as when the system has
/// none left. For one test at a time.
class ThreadShortage {
public:
    ThreadShortage() = default;

    /// Calls `end()`.
    ~ThreadShortage() { end(); }

    ThreadShortage(const ThreadShortage&) = delete;
    ThreadShortage& operator=(const ThreadShortage&) = delete;

    void begin();
    void end();
};

}  // namespace kolvan::test
