#pragma once

#include "companions/profiler/unwind/FrameRules.h"
#include "companions/profiler/unwind/FrameTable.h"

#include <cstdint>

namespace kolvan::profiler {

/// Executes the instructions by which a function's description says, from its beginning on, how its
/// frame changes.
/// @return the rules at `address`; not `known` where an instruction is not understood, or they do
/// not
///     say where the caller is
FrameRules executeFrameProgram(const FrameTable::Function& function, std::uint64_t address);

}  // namespace kolvan::profiler
