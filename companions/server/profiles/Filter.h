#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace kolvan::server::profiles {

/// Which part of a profile a view shows; without anything, all of it.
struct Filter {
    std::optional<std::int64_t> thread =
        std::nullopt;  ///< the samples of threads with this id only
    /// Milliseconds since the beginning of the collection; samples know their tenth of a second. A
    /// sample counts when `from` <= its time < `to`. Samples without a time count only where
    /// neither is given.
    std::optional<std::int64_t> from = std::nullopt;
    std::optional<std::int64_t> to = std::nullopt;
    std::string sampleType = {};  ///< name of a type of the profile; empty: its default
};

/// A view cannot be made: the sentence is for the user.
struct BadFilter : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

}  // namespace kolvan::server::profiles
