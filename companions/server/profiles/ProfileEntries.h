#pragma once

#include "companions/server/profiles/ByteTable.h"
#include "companions/server/profiles/IdTable.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileLimits.h"
#include "companions/server/profiles/TextTable.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kolvan::server::profiles {

/// The entries of a pprof message as the file has them: what they refer to need not be there.
struct ProfileEntries {
    using Text = TextTable::Position;

    struct Mapping {
        Text path = 0;
        Text buildId = 0;
    };

    struct Location {
        std::uint64_t mapping = 0;  ///< its id; 0: none
        std::uint64_t address = 0;
        std::uint32_t linesBegin = 0;  ///< in `lines`; its end is the next one's beginning
    };

    explicit ProfileEntries(const ProfileLimits& limits) : texts(limits) {}

    std::vector<std::pair<Text, Text>> types;  ///< name and unit
    std::optional<Text> defaultType;
    std::vector<Text> comments;
    TextTable texts;
    std::vector<Mapping> mappings;
    std::vector<Text> functions;  ///< name of each
    std::vector<Location> locations;
    std::vector<std::uint64_t> lines;  ///< ids of functions
    IdTable mappingIds;
    IdTable functionIds;
    IdTable locationIds;

    /// What samples have in common is kept once, until it can be understood.
    ByteTable stacks;     ///< ids of locations
    ByteTable labelSets;  ///< messages with labels only
    /// Their nodes are numbers of stacks as yet, their moments those of sets of labels.
    std::vector<Profile::Sample> samples;
    std::vector<std::uint64_t> values;        ///< of all samples, as many of each
    std::optional<std::size_t> valuesOfEach;  ///< nothing while there is no sample
    std::int64_t beginNanoseconds = 0;
    std::int64_t durationNanoseconds = 0;
};

}  // namespace kolvan::server::profiles
