#pragma once

#include "companions/server/profiles/ProfileLimits.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::profiles {

/// The texts of a profile, which everything else in it refers to by their positions.
class TextTable {
public:
    using Position = std::uint64_t;  ///< any number that a file has in its place

    explicit TextTable(const ProfileLimits& profileLimits) : limits(profileLimits) {}

    /// What is no UTF-8 is made so.
    /// @return where it is
    /// @throws UnreadableProfile when it is too much
    Position add(std::string_view bytes);

    /// @throws UnreadableProfile when there is no such text
    const std::string& operator[](Position position) const;

    /// A text for the profile itself: a few bytes of a file can refer to the same long one again
    /// and again, so what has been copied is counted.
    /// @throws UnreadableProfile when there is no such text, or it is too much
    std::string copyOf(Position position);

    std::size_t size() const noexcept { return texts.size(); }

private:
    const ProfileLimits limits;
    std::vector<std::string> texts;
    std::uint64_t bytes = 0;
    std::uint64_t copiedBytes = 0;
};

}  // namespace kolvan::server::profiles
