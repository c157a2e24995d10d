#pragma once

#include "basekit2/Places.h"

#include <cstddef>

namespace basekit2::process {

/// How much may be done at once with the open descriptors that the process may have. Who finds no
/// room waits for its turn, where it would otherwise fail in the middle of its work.
///
/// Runs and requests have places of their own, because a run needs requests to end: however many
/// runs there are, there is room to report what they print and that they have ended. A request
/// waits for nothing but its server, so that nobody waits in a circle.
struct DescriptorBudget {
    /// Divides the room among `descriptorLimit` open descriptors.
    explicit DescriptorBudget(std::size_t descriptorLimit) noexcept;

    Places runs;      ///< runs of a child with its pipes
    Places requests;  ///< connections to a server, each with a file that is sent or received
};

/// The one budget of the process, made of the soft limit at the first call: call
/// `raise_descriptor_limit()` before. Never destroyed.
DescriptorBudget& descriptor_budget();

}  // namespace basekit2::process
