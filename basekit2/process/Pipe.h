#pragma once

#include "basekit2/UniqueFd.h"
#include "basekit2/result.h"

namespace basekit2::process {

/// Both ends of a pipe, closed when a program is executed.
struct PipeEnds {
    UniqueFd readEnd;
    UniqueFd writeEnd;  ///< for a child; SpawnPlan::kLowestSource or higher
};

/// Opens a pipe.
/// @return no error, or why there is none; `ends` is unchanged then
result_t openPipe(PipeEnds& ends) noexcept;

}  // namespace basekit2::process
