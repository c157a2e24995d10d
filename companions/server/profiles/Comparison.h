#pragma once

#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/Profile.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kolvan::server::profiles {

/// What two profiles have in common, and where they differ.
///
/// A function of one is that of the other when name and file name of the module are the same;
/// directories differ between versions of a program.
struct Comparison {
    struct Function {
        std::string name;
        std::string module;  ///< as the other profile has it; as the base does, if only that
        std::uint64_t baseSelf = 0;  ///< 0 where the base does not have it
        std::uint64_t baseTotal = 0;
        std::uint64_t otherSelf = 0;
        std::uint64_t otherTotal = 0;
        double selfDifference = 0;  ///< share of all in the other minus share of all in the base
        double totalDifference = 0;
    };

    std::string sampleType;
    std::string unit;
    std::uint64_t baseTotal = 0;
    std::uint64_t otherTotal = 0;
    /// First those with the greatest `selfDifference`, whichever its sign, then by
    /// `totalDifference`.
    std::vector<Function> functions;

    CallTree calls;                       ///< its functions are positions in `functions`
    std::vector<std::uint64_t> baseSelf;  ///< of each node, and so on
    std::vector<std::uint64_t> baseTotals;
    std::vector<std::uint64_t> otherSelf;
    std::vector<std::uint64_t> otherTotals;
};

/// @param filter of both; where it names no sample type, that which the base shows by default
/// @throws BadFilter also when the other profile measures something else than the base
Comparison compare(const Profile& base, const Profile& other, const Filter& filter);

/// Writes a comparison as JSON: totals, the functions, and the tree in columns as a flame graph has
/// it, with "baseSelf", "baseTotal", "otherSelf" and "otherTotal".
/// @throws ViewTooLarge, and what the sink throws
void writeComparison(const Comparison& comparison, const Sink& sink);

}  // namespace kolvan::server::profiles
