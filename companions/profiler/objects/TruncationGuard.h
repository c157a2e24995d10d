#pragma once

#include <cstddef>
#include <span>

namespace kolvan::profiler {

/// Lets a mapped file be read although somebody may cut it short meanwhile, as a plain copy over a
/// library in use does. The system answers a read behind a file's new end with SIGBUS, which would
/// end this program for what happens to another; with a guard, zeros are read there.
///
/// The first guard takes the process's handling of SIGBUS over, for good; what concerns no guarded
/// file ends the process as before. Guards come, go and are needed on one thread.
class TruncationGuard {
public:
    /// @param mapping a whole file, from its first page; mapped for as long as the guard lives
    explicit TruncationGuard(std::span<const char> mapping);
    ~TruncationGuard();

    TruncationGuard(const TruncationGuard&) = delete;
    TruncationGuard& operator=(const TruncationGuard&) = delete;

    /// Whether a guard covers the address, and has put zeros there. For the signal's handler.
    static bool cover(const void* address) noexcept;

private:
    const std::span<const char> guarded;
    TruncationGuard* previous;  // of a list that the handler walks: it may not allocate or lock
    TruncationGuard* next = nullptr;
};

}  // namespace kolvan::profiler
