#pragma once

#include "basekit2/UniqueFd.h"

namespace basekit2 {

/// Creates an event: a descriptor that can be read as soon as somebody has called eventfd_write(3)
/// on it. Threads that wait in poll(2) are woken with it.
/// @throws std::system_error when no descriptor is available
UniqueFd create_event();

}  // namespace basekit2
