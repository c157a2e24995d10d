#pragma once

#include <optional>
#include <span>

#include <sys/resource.h>

namespace basekit2::process {

/// Our `source` becomes the child's `target`.
struct DescriptorMapping {
    int source;
    int target;
};

/// What a new child does on its way to its program. Everything is prepared by the parent, because
/// the child may neither allocate nor lock; all pointers must stay valid until the program runs.
struct ProgramStart {
    /// Every source lies above all targets and above `firstClosed`.
    std::span<const DescriptorMapping> descriptors;

    /// Above all targets. From here upward everything is closed.
    int firstClosed;

    /// Where the number of an error is written, as an `int`. It is closed when the program starts.
    int report;

    const char* workingDirectory;           ///< null: the parent's
    std::optional<rlim_t> descriptorLimit;  ///< soft; none: the parent's
    const char* const* programs;            ///< paths; the first that can be run is. Ends with null
    char* const* arguments;                 ///< argument 0 included; ends with null
    char* const* environment;               ///< ends with null
};

/// Turns a child that has just been created by vfork(2) or fork(2) into the program: standard input
/// on the null device, the given descriptors and no others, default signal dispositions, an empty
/// signal mask. Where that fails the error is reported and the child exits.
///
/// A vfork child borrows the parent's memory, and of a forked one all threads but this are gone:
/// nothing here allocates, locks, or calls a function that is not async-signal-safe.
[[noreturn]] void becomeProgram(ProgramStart start) noexcept;

}  // namespace basekit2::process
