#include "basekit2/process/DescriptorLimit.h"

#include "basekit2/UniqueFd.h"

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <optional>

namespace basekit2::process {

namespace {

struct Limits {
    rlimit former;
    rlimit raised;
};

constinit std::optional<Limits> limits;  // written before other threads run
constinit std::mutex startMutex;         // held while a child is started; see ChildDescriptorLimit

// A new descriptor has the lowest number that is free. Half of the limit above that is room enough
// for what other threads open in the millisecond that a start takes.
bool isCrowded() noexcept {
    const UniqueFd lowestFree(::eventfd(0, EFD_CLOEXEC));
    return !lowestFree || static_cast<rlim_t>(lowestFree.get()) >= limits->former.rlim_cur / 2;
}

}  // namespace

void raise_descriptor_limit() noexcept {
    rlimit former{};
    if (::getrlimit(RLIMIT_NOFILE, &former) != 0 || former.rlim_cur == former.rlim_max) {
        return;
    }
    rlimit raised = former;
    raised.rlim_cur = former.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        limits = Limits{former, raised};
    }
}

ChildDescriptorLimit::ChildDescriptorLimit() noexcept {
    if (!limits) {
        return;
    }
    turn = std::unique_lock(startMutex);
    if (!isCrowded()) {
        lowered = ::setrlimit(RLIMIT_NOFILE, &limits->former) == 0;
    }
}

ChildDescriptorLimit::~ChildDescriptorLimit() {
    if (lowered) {
        (void)::setrlimit(RLIMIT_NOFILE, &limits->raised);
    }
}

void ChildDescriptorLimit::applyTo(pid_t child) const noexcept {
    if (limits && !lowered) {
        // A failure means that the child is gone already.
        (void)::prlimit(child, RLIMIT_NOFILE, &limits->former, nullptr);
    }
}

}  // namespace basekit2::process
