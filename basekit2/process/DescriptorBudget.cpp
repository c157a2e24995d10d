#include "basekit2/process/DescriptorBudget.h"

#include <algorithm>

#include <sys/resource.h>

namespace basekit2::process {

namespace {

// What is open beside runs and requests: the standard descriptors, the interrupt's event, an
// archive and the file that is extracted from it, directories that are searched, and one further
// run, which carries a command to a collection and must never wait for the others.
constexpr std::size_t kHeldBack = 32;

// While a run starts: three pipes with both ends, the pipe that tells of the start with the second
// number of its end, and the event that stops the reading. Later it is four.
constexpr std::size_t kPerRun = 10;

// The transport's own event and two sockets, of which one address family's is given up, those of
// the name resolution, a file of authorities and the file that is transferred.
constexpr std::size_t kPerRequest = 10;

// The open request for commands, an operation's output, its end, and a cancel's answer: fewer could
// not make progress beside each other.
constexpr std::size_t kLeastRequests = 4;

// Half of the room each: a run has up to three channels that want to be sent, one after another.
std::size_t half(std::size_t limit) noexcept {
    return limit > kHeldBack ? (limit - kHeldBack) / 2 : 0;
}

std::size_t softLimit() noexcept {
    rlimit limit{};
    // Cannot fail: the arguments are valid.
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

}  // namespace

DescriptorBudget::DescriptorBudget(std::size_t descriptorLimit) noexcept
    : runs(std::max<std::size_t>(half(descriptorLimit) / kPerRun, 1)),
      requests(std::max(half(descriptorLimit) / kPerRequest, kLeastRequests)) {}

DescriptorBudget& descriptor_budget() {
    static auto& budget = *new DescriptorBudget(softLimit());
    return budget;
}

}  // namespace basekit2::process
