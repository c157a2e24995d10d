#include "basekit2/process/DescriptorLimit.h"

#include <sys/resource.h>
#include <optional>

namespace basekit2::process {

namespace {

constinit std::optional<rlimit> originalLimit;

}  // namespace

void raise_descriptor_limit() noexcept {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) {
        return;
    }
    rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        originalLimit = limit;
    }
}

void restore_descriptor_limit(pid_t child) noexcept {
    if (originalLimit) {
        // posix_spawn has no attribute for limits, so the child gets its own right after it has
        // been started. A failure means that the child is gone already.
        (void)::prlimit(child, RLIMIT_NOFILE, &*originalLimit, nullptr);
    }
}

}  // namespace basekit2::process
