#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

namespace kolvan::test {

/// How long a wait of a test may last. Reaching it fails the test; it decides nothing else.
constexpr std::chrono::seconds kDeadline{60};

/// Keeps threads waiting until it is opened, which is for good. Any threads.
class Gate {
public:
    void open() {
        const std::lock_guard lock(mutex);
        opened = true;
        changed.notify_all();
    }

    /// @throws std::runtime_error when the deadline passes
    void wait() {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, kDeadline, [this] { return opened; })) {
            throw std::runtime_error("a gate was never opened");
        }
    }

    bool isOpen() {
        const std::lock_guard lock(mutex);
        return opened;
    }

private:
    std::mutex mutex;  // guards opened
    std::condition_variable changed;
    bool opened = false;
};

}  // namespace kolvan::test
