#include "basekit2/process/DescriptorLimit.h"

#include <optional>

namespace basekit2::process {

namespace {

constinit std::optional<rlimit> formerLimit;  // written before other threads run

}  // namespace

void raise_descriptor_limit() noexcept {
    rlimit former{};
    if (::getrlimit(RLIMIT_NOFILE, &former) != 0 || former.rlim_cur == former.rlim_max) {
        return;
    }
    rlimit raised = former;
    raised.rlim_cur = former.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        formerLimit = former;
    }
}

const rlimit* former_descriptor_limit() noexcept {
    return formerLimit ? &*formerLimit : nullptr;
}

}  // namespace basekit2::process
