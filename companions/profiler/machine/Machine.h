#pragma once

#include "companions/profiler/engine/SamplingRights.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace kolvan::profiler {

/// What of the machine and of this user decides what can be profiled. Errors are numbers as errno
/// has them, 0 for none.
struct Machine {
    std::string name;
    std::string kernel;  ///< its release
    std::size_t processors = 1;
    std::string user;
    uid_t userId = 0;
    std::uint64_t capabilities = 0;  ///< a bit each, by the numbers of capabilities(7)

    SamplingRights sampling;
    // Of kernel.*; nothing where the system does not have or show it.
    std::optional<int> ptraceScope;
    std::optional<int> kptrRestrict;

    int samplingError = 0;            ///< perf_event_open(2) for a process of this user
    int samplingInKernelError = 0;    ///< the same, the kernel's own work too
    int tracingError = 0;             ///< ptrace(2) for a child of ours
    bool kernelNames = false;         ///< whether the kernel's functions can be named
    std::size_t ringBytes = 0;        ///< of memory that can be had for the samples of a processor
    std::size_t enoughRingBytes = 1;  ///< of it, so that few samples are lost; none is too little
    std::uint64_t descriptors = 0;    ///< that this program may have at most
    bool libraryIsDescribed = false;  ///< whether there is a debug file of the C library

    bool has(int capability) const noexcept {
        return (capabilities >> static_cast<unsigned>(capability) & 1U) != 0;
    }
};

/// Reads the settings, and tries what can be tried.
Machine readMachine();

/// The settings alone, without the trials, which are left as they are at first.
Machine readSettings();

/// The name of a user, or his number where he has none.
std::string userName(uid_t user);

}  // namespace kolvan::profiler
