#include "basekit2/process/DescriptorLimit.h"

namespace basekit2::process {

namespace {

constinit std::optional<rlim_t> formerLimit;  // written before other threads run

}  // namespace

void raise_descriptor_limit() noexcept {
    rlimit former{};
    if (::getrlimit(RLIMIT_NOFILE, &former) != 0 || former.rlim_cur == former.rlim_max) {
        return;
    }
    rlimit raised = former;
    raised.rlim_cur = former.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        formerLimit = former.rlim_cur;
    }
}

std::optional<rlim_t> former_descriptor_limit() noexcept {
    return formerLimit;
}

}  // namespace basekit2::process
