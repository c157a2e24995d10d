#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kolvan::profiler {

/// What decides whether this process may sample at all; whom it may sample is another question.
struct SamplingRights {
    /// kernel.perf_event_paranoid; nothing where the system does not have or show it.
    std::optional<int> paranoid;
    /// It has CAP_PERFMON or CAP_SYS_ADMIN of the whole machine, for which every level is the same.
    bool privileged = false;
};

/// Those of the thread that asks.
SamplingRights readSamplingRights();

/// What is in the way of who may not sample even himself.
enum class SamplingObstacle {
    Level,        ///< kernel.perf_event_paranoid
    Filter,       ///< a filter of system calls, or a security module
    NoEvents,     ///< the kernel has no such call, or a filter says so
    Descriptors,  ///< a limit of open files
    Unknown       ///< anything else; it may pass
};

/// Understands what perf_event_open(2) has failed with.
SamplingObstacle obstacleOf(int error, const SamplingRights& rights);

/// What would take it away, as the subject of a sentence.
std::string cureOf(SamplingObstacle obstacle);

/// " (kernel.perf_event_paranoid is 3)", or nothing where the setting is unknown.
std::string paranoidRemark(std::optional<int> paranoid);

/// Why perf_event_open(2) has failed with `error` for this thread itself, and what would help.
std::string refusalOfSampling(int error);

/// The same for another process, by who may sample himself: his rights are in order.
std::string refusalOfProcess(int error);

/// The capabilities in force of the thread that asks: a bit each, by the numbers of
/// capabilities(7).
std::uint64_t effectiveCapabilities();

/// A number in /proc/sys/kernel; nothing where the system does not have or show it.
std::optional<int> readKernelSetting(const std::string& name);

}  // namespace kolvan::profiler
