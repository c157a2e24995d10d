#pragma once

#include <optional>

#include <sys/resource.h>

namespace basekit2::process {

/// Raises the process's soft limit of open descriptors to its hard limit, and remembers the
/// former one for the children: programs that use select(2) rely on the usual low limit.
///
/// Call it once, before other threads run. Where the limit cannot be read or raised nothing
/// changes; the program then works within the limit it has.
void raise_descriptor_limit() noexcept;

/// The soft limit from before `raise_descriptor_limit()`, which every child starts with; none when
/// nothing was raised. Any thread.
std::optional<rlim_t> former_descriptor_limit() noexcept;

}  // namespace basekit2::process
