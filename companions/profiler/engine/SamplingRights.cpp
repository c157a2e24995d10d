#include "companions/profiler/engine/SamplingRights.h"

#include "companions/profiler/base/ErrorText.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include <linux/capability.h>

namespace kolvan::profiler {

namespace {

constexpr int kHighestForOwn = 2;  // level at which everybody may sample his own programs

/// Whether the user numbers here are those of the whole machine. In a namespace of its own, as
/// containers have one, a process has all capabilities and none of them outside.
bool isInFirstUserNamespace() {
    std::ifstream file("/proc/self/uid_map");
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    std::uint64_t length = 0;
    constexpr std::uint64_t kAll = 0xFFFF'FFFF;
    if (!file.is_open()) {
        return true;  // a kernel without such namespaces
    }
    // One that was just made maps nobody.
    return file >> inside >> outside >> length && outside == 0 && length == kAll;
}

bool isForbidden(int error) {
    return error == EACCES || error == EPERM;
}

}  // namespace

SamplingRights readSamplingRights() {
    constexpr std::uint64_t kOneIsEnough = std::uint64_t{1} << CAP_PERFMON | std::uint64_t{1}
                                                                                 << CAP_SYS_ADMIN;
    return {readKernelSetting("perf_event_paranoid"),
            (effectiveCapabilities() & kOneIsEnough) != 0 && isInFirstUserNamespace()};
}

SamplingObstacle obstacleOf(int error, const SamplingRights& rights) {
    switch (error) {
        case EACCES:
        case EPERM:
            return rights.paranoid.value_or(0) > kHighestForOwn && !rights.privileged
                       ? SamplingObstacle::Level
                       : SamplingObstacle::Filter;
        case ENOSYS:
            return SamplingObstacle::NoEvents;
        case EMFILE:
        case ENFILE:
            return SamplingObstacle::Descriptors;
        default:
            return SamplingObstacle::Unknown;
    }
}

std::string cureOf(SamplingObstacle obstacle) {
    switch (obstacle) {
        case SamplingObstacle::Level:
            return "kernel.perf_event_paranoid at most 2, or CAP_PERFMON";
        case SamplingObstacle::Filter:
            return "a filter of system calls, of a container for instance, that lets "
                   "perf_event_open pass";
        case SamplingObstacle::NoEvents:
            return "a kernel with CONFIG_PERF_EVENTS, or a filter of system calls that lets "
                   "perf_event_open pass";
        case SamplingObstacle::Descriptors:
            return "a higher limit of open files (ulimit -n)";
        case SamplingObstacle::Unknown:
            break;
    }
    return "another attempt later";
}

std::string paranoidRemark(std::optional<int> paranoid) {
    return paranoid ? " (kernel.perf_event_paranoid is " + std::to_string(*paranoid) + ")" : "";
}

std::string refusalOfSampling(int error) {
    const SamplingRights rights = readSamplingRights();
    const SamplingObstacle obstacle = obstacleOf(error, rights);
    return (isForbidden(error) ? "the system does not let this user sample, perf_event_open: "
                               : "perf_event_open: ") +
           errorText(error) +
           (obstacle == SamplingObstacle::Level ? paranoidRemark(rights.paranoid) : "") +
           "; what helps is " + cureOf(obstacle);
}

std::string refusalOfProcess(int error) {
    return isForbidden(error)
               ? "the system does not let this user sample this process, perf_event_open: " +
                     errorText(error) + "; its own user may, or root"
               : refusalOfSampling(error);
}

std::uint64_t effectiveCapabilities() {
    std::ifstream file("/proc/thread-self/status");
    for (std::string word; file >> word;) {
        if (word == "CapEff:" && file >> word) {
            return std::strtoull(word.c_str(), nullptr, 16);
        }
    }
    return 0;
}

std::optional<int> readKernelSetting(const std::string& name) {
    std::ifstream file("/proc/sys/kernel/" + name);
    int value = 0;
    return file >> value ? std::optional(value) : std::nullopt;
}

}  // namespace kolvan::profiler
