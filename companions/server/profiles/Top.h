#pragma once

#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/Profile.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kolvan::server::profiles {

/// The functions that cost most.
struct Top {
    struct Function {
        std::uint32_t function = 0;  ///< position in the profile
        std::uint64_t self = 0;      ///< in the function itself
        std::uint64_t total = 0;     ///< also in what it calls; a stack counts once if it recurs
    };

    struct Thread {
        std::uint32_t thread = 0;  ///< position in the profile
        std::uint64_t total = 0;
    };

    std::uint64_t total = 0;  ///< of all samples that the filter lets through
    std::vector<Function>
        functions;  ///< by `self`, then by `total`, the greatest first; none with 0
    /// All that can be filtered by: of each thread what falls into the filter's time, whatever
    /// thread the filter asks for; the greatest first.
    std::vector<Thread> threads;
};

/// @param mostFunctions how many functions to list
/// @throws BadFilter
Top findTop(const Profile& profile, const Filter& filter, std::size_t mostFunctions);

/// Writes a top as JSON:
///
///     {"sampleType": "cpu", "unit": "nanoseconds", "total": 980,
///      "functions": [{"name": "hash", "module": "/opt/app/app", "self": 700, "total": 700}],
///      "threads": [{"id": 100, "name": "app", "process": 100, "processName": "app", "total":
///      980}]}
///
/// @throws BadFilter, ViewTooLarge, and what the sink throws
void writeTop(const Profile& profile, const Filter& filter, std::size_t mostFunctions,
              const Sink& sink);

}  // namespace kolvan::server::profiles
