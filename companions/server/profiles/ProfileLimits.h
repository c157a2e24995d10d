#pragma once

#include <cstddef>
#include <cstdint>

namespace kolvan::server::profiles {

/// What we take of one profile. Whoever commands an agent chooses its bytes, so that memory and
/// time are bounded by these numbers and not by what a file says of itself: about 2 GiB at worst,
/// and some seconds.
struct ProfileLimits {
    std::uint64_t bytes = std::uint64_t{512} << 20;  ///< unpacked
    std::size_t partBytes = std::size_t{16} << 20;   ///< of one text, sample, ...
    std::size_t samples = std::size_t{8} << 20;      ///< 8 processors at 10,000 Hz for 100 s
    std::size_t sampleTypes = 8;                     ///< values of each sample
    std::size_t entries = std::size_t{4} << 20;  ///< texts; functions; locations; their lines; ...
    std::size_t threads = std::size_t{256} << 10;
    std::size_t calls = std::size_t{32} << 20;  ///< of all different stacks together
};

}  // namespace kolvan::server::profiles
