#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace kolvan::profiler {

/// A copy of the upper part of a stack, read by the addresses of the original.
class StackCopy {
public:
    /// @param begin address of the first byte
    StackCopy(std::uint64_t begin, std::span<const std::byte> bytes) : first(begin), copy(bytes) {}

    /// Reads `size` bytes, 8 at most, lowest byte first.
    /// @return nothing when one of them is not in the copy
    std::optional<std::uint64_t> read(std::uint64_t address, std::size_t size = 8) const noexcept {
        const std::uint64_t offset = address - first;
        if (size > sizeof(std::uint64_t) || copy.size() < size || offset > copy.size() - size) {
            return std::nullopt;
        }
        std::uint64_t word = 0;
        std::memcpy(&word, copy.data() + offset, size);
        return word;
    }

private:
    const std::uint64_t first;
    const std::span<const std::byte> copy;
};

}  // namespace kolvan::profiler
