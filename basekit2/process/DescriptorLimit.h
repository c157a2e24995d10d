#pragma once

#include <sys/types.h>

namespace basekit2::process {

/// Raises the process's soft limit of open descriptors to its hard limit, and remembers the
/// former one for the children: programs that use select(2) rely on the usual low limit.
///
/// Call it once, before other threads run. Where the limit cannot be read or raised nothing
/// changes; the program then works within the limit it has.
void raise_descriptor_limit() noexcept;

/// Gives a child that has just been started the limit from before `raise_descriptor_limit()`.
/// Does nothing when that has not been called.
void restore_descriptor_limit(pid_t child) noexcept;

}  // namespace basekit2::process
