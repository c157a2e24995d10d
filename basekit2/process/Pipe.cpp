#include "basekit2/process/Pipe.h"

#include "basekit2/process/SpawnPlan.h"

#include <array>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace basekit2::process {

result_t openPipe(PipeEnds& ends) noexcept {
    std::array<int, 2> descriptors{};
    if (::pipe2(descriptors.data(), O_CLOEXEC) != 0) {
        return result_t::from_errno(errno);
    }
    UniqueFd readEnd(descriptors[0]);
    UniqueFd writeEnd(descriptors[1]);
    if (writeEnd.get() < SpawnPlan::kLowestSource) {
        // Laying out a child's descriptors must not overwrite one that is still to be laid out.
        writeEnd = UniqueFd(::fcntl(writeEnd.get(), F_DUPFD_CLOEXEC, SpawnPlan::kLowestSource));
        if (!writeEnd) {
            return result_t::from_errno(errno);
        }
    }
    ends = {std::move(readEnd), std::move(writeEnd)};
    return result_t::no_error();
}

}  // namespace basekit2::process
