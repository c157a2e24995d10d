#include "companions/check/LimitFindings.h"

#include <optional>
#include <string>

#include <sys/resource.h>

namespace kolvan::check {

namespace {

std::optional<rlim_t> limitBelow(decltype(RLIMIT_AS) resource, bool hard, rlim_t enough) {
    rlimit limit{};
    if (::getrlimit(resource, &limit) != 0) {
        return std::nullopt;  // only for a resource that the system does not know
    }
    const rlim_t value = hard ? limit.rlim_max : limit.rlim_cur;
    return value < enough ? std::optional(value) : std::nullopt;
}

}  // namespace

Findings examineLimits() {
    constexpr rlim_t kMegabyte = rlim_t{1000} * 1000;
    constexpr rlim_t kEnoughProcesses = 512;
    constexpr rlim_t kEnoughDescriptors = 1024;
    constexpr rlim_t kLeastAddresses = 80 * kMegabyte;    // an installation from gzip
    constexpr rlim_t kEnoughAddresses = 250 * kMegabyte;  // one from xz -9
    Findings findings;
    const auto add = [&findings](Severity severity, const char* subject, std::string text) {
        findings.push_back({severity, "limit", {subject}, std::move(text)});
    };
    if (const auto limit = limitBelow(RLIMIT_NPROC, false, kEnoughProcesses)) {
        add(Severity::Warning, "processes",
            "This user may have " + std::to_string(*limit) +
                " processes and threads at once (ulimit -u). An agent has a dozen threads at "
                "work, two for each trace that it uploads, and its collectors; root is exempt.");
    }
    // The agent raises the soft limit to the hard one.
    if (const auto limit = limitBelow(RLIMIT_NOFILE, true, kEnoughDescriptors)) {
        add(Severity::Warning, "descriptors",
            "A process may have " + std::to_string(*limit) +
                " open descriptors (ulimit -H -n). Runs and uploads wait for each other where "
                "there are not enough.");
    }
    if (const auto limit = limitBelow(RLIMIT_AS, false, kLeastAddresses)) {
        add(Severity::Error, "memory",
            "A process may have " + std::to_string(*limit / kMegabyte) +
                " MB of addresses (ulimit -v); no package can be installed with less than 80 MB.");
    } else if (const auto low = limitBelow(RLIMIT_AS, false, kEnoughAddresses)) {
        add(Severity::Warning, "memory",
            "A process may have " + std::to_string(*low / kMegabyte) +
                " MB of addresses (ulimit -v); a package that is packed tightly may take 250 MB "
                "to install. A control group limits memory better.");
    }
    return findings;
}

}  // namespace kolvan::check
