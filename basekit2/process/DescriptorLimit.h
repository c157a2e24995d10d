#pragma once

#include <sys/types.h>

#include <mutex>

namespace basekit2::process {

/// Raises the process's soft limit of open descriptors to its hard limit, and remembers the
/// former one for the children: programs that use select(2) rely on the usual low limit.
///
/// Call it once, before other threads run. Where the limit cannot be read or raised nothing
/// changes; the program then works within the limit it has.
void raise_descriptor_limit() noexcept;

/// Gives a child that is started while this object lives the limit from before
/// `raise_descriptor_limit()`; does nothing when that has not been called.
///
/// posix_spawn has no attribute for limits, so that the former limit is in force in this process
/// while the child is started. A process that has many descriptors open could not open more
/// meanwhile; there the child gets its limit right after the start instead.
///
/// Threads: one object at a time lives; a second one waits for the first.
class ChildDescriptorLimit {
public:
    ChildDescriptorLimit() noexcept;
    ~ChildDescriptorLimit();

    ChildDescriptorLimit(const ChildDescriptorLimit&) = delete;
    ChildDescriptorLimit& operator=(const ChildDescriptorLimit&) = delete;

    /// To be called once `child` has been started.
    void applyTo(pid_t child) const noexcept;

private:
    std::unique_lock<std::mutex> turn;
    bool lowered = false;
};

}  // namespace basekit2::process
