#pragma once

#include "basekit2/Places.h"

#include <cstddef>

namespace basekit2::process {

/// How much may be done at once with the open descriptors that the process may have. Whoever finds
/// no room waits for a turn, and does not fail in the middle of the work.
///
/// Each kind has places of its own, because a run needs messages and uploads to end: however many
/// runs there are, there is room to report what they print and that they have ended. Messages and
/// uploads wait for nothing but their server, so that nobody waits in a circle. What the connection
/// itself says takes no place: there is room for it apart.
struct DescriptorBudget {
    /// Divides the room among `descriptorLimit` open descriptors.
    explicit DescriptorBudget(std::size_t descriptorLimit) noexcept;

    Places runs;      ///< runs of a child with its pipes
    Places messages;  ///< of operations: what a run prints, and its end
    Places uploads;   ///< connections that send a file
};

/// The one budget of the process, made of the soft limit at the first call: call
/// `raise_descriptor_limit()` before. Never destroyed.
DescriptorBudget& descriptor_budget();

}  // namespace basekit2::process
