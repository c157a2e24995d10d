#pragma once

#include "companions/profiler/unwind/Expression.h"
#include "companions/profiler/unwind/Frame.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kolvan::profiler {

/// How to get from a frame to its caller's, at one place in the code.
///
/// The CFA (canonical frame address) is the caller's stack pointer before the call; most registers
/// of the caller have been saved at a distance from it.
struct FrameRules {
    enum class Source : std::uint8_t {
        Register,      ///< register `base` + `number`
        CfaPlus,       ///< CFA + `number`
        AtCfaPlus,     ///< the word at CFA + `number`
        Expression,    ///< what `expressions[number]` yields
        AtExpression,  ///< the word at what it yields
    };

    struct Rule {
        Source source = Source::Register;
        std::uint8_t base = 0;
        std::uint8_t target =
            0;  ///< register of the caller that gets the value; unused for the CFA
        std::int32_t number = 0;
    };

    std::span<const Rule> restoredRules() const noexcept {
        return std::span(restored).first(restoredCount);
    }

    /// Without rules, nothing else here means anything.
    bool known = false;
    /// The next frame was interrupted by a signal where it is; it has called nobody.
    bool signalFrame = false;
    /// There is no next frame: a thread begins here.
    bool outermost = false;
    Rule cfa;  ///< from a register, or by an expression
    /// Bit N: the caller's register N is as this frame has it. What is neither kept nor restored is
    /// lost.
    std::uint32_t kept = 0;
    std::uint8_t restoredCount = 0;
    std::array<Rule, Frame::kRegisters> restored{};  ///< the first `restoredCount` are valid
    std::vector<Expression> expressions;
};

}  // namespace kolvan::profiler
