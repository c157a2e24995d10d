#include "basekit2/process/DescriptorBudget.h"

#include <algorithm>

#include <sys/resource.h>

namespace basekit2::process {

namespace {

// The most that one request has open at a time: the transport's own pair of sockets, and besides
// - while the server's name is looked up: the sockets of that, and a file that it reads,
// - later: the connection, at first one for each family of addresses, and the file that is sent.
constexpr std::size_t kPerRequest = 6;

// While a run starts: three pipes with both ends, the pipe that tells of the start with the second
// number of its end, and the event that stops the reading. Later it is four.
constexpr std::size_t kPerRun = 10;

// What never waits for a place, and has room of its own:
// - the standard descriptors and the interrupt's event,
// - an installation: a download and its archive, or that and the file that is extracted,
// - one more run, which carries a command to a collection,
// - four requests of the connection: for commands, an answer to a cancel, "disconnect", "error".
constexpr std::size_t kHeldBack = 40 + 4 * kPerRequest;

std::size_t room(std::size_t limit) noexcept {
    return limit > kHeldBack ? limit - kHeldBack : 0;
}

std::size_t atLeastOne(std::size_t count) noexcept {
    return std::max<std::size_t>(count, 1);
}

std::size_t softLimit() noexcept {
    rlimit limit{};
    // Cannot fail: the arguments are valid.
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

}  // namespace

// The files of a collection are meant to be sent all at the same time, so that uploads have half of
// the room. The messages of runs are short and take turns.
DescriptorBudget::DescriptorBudget(std::size_t descriptorLimit) noexcept
    : runs(atLeastOne(room(descriptorLimit) / 3 / kPerRun)),
      messages(atLeastOne(room(descriptorLimit) / 6 / kPerRequest)),
      uploads(atLeastOne(room(descriptorLimit) / 2 / kPerRequest)) {}

DescriptorBudget& descriptor_budget() {
    static auto& budget = *new DescriptorBudget(softLimit());
    return budget;
}

}  // namespace basekit2::process
