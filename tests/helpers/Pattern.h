#pragma once

#include <cstdint>

namespace kolvan::test {

/// Byte number `offset` of the endless text that the test child floods descriptor `channel` with.
/// Every channel has a text of its own, and no part of it repeats within any usable length, so
/// that a byte that is lost, doubled or out of order shows.
inline char patternByte(int channel, std::uint64_t offset) {
    const std::uint64_t word = (offset / 8 + 1) * 0x9E3779B97F4A7C15U +
                               static_cast<std::uint64_t>(channel) * 0xC2B2AE3D27D4EB4FU;
    return static_cast<char>((word >> (8 * (offset % 8))) & 0xFFU);
}

}  // namespace kolvan::test
