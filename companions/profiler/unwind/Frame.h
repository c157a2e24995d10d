#pragma once

#include "companions/profiler/base/Registers.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>

namespace kolvan::profiler {

/// One call on its way to its caller: what its registers hold, and which of them are known.
struct Frame {
    static constexpr std::size_t kRegisters = std::tuple_size_v<decltype(Registers::values)>;
    static constexpr std::uint32_t kAllKnown = (1U << kRegisters) - 1;

    /// @return nothing for a register that is not known, or that does not exist
    std::optional<std::uint64_t> value(std::uint64_t number) const noexcept {
        return number < kRegisters && ((known >> number) & 1U) != 0
                   ? std::optional(registers.values[number])
                   : std::nullopt;
    }

    void set(std::size_t number, std::uint64_t value) noexcept {
        registers.values[number] = value;
        known |= 1U << number;
    }

    Registers registers;
    std::uint32_t known = kAllKnown;  ///< bit N: register N
};

}  // namespace kolvan::profiler
