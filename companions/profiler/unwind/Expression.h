#pragma once

#include "companions/profiler/unwind/Frame.h"
#include "companions/profiler/unwind/StackCopy.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace kolvan::profiler {

/// A DWARF expression, as call frame information has them where a distance from a register does not
/// tell enough: at PLT entries, in signal trampolines and in hand-written assembly.
class Expression {
public:
    /// One operation with its operands, as DWARF numbers them.
    struct Operation {
        std::uint8_t code = 0;
        std::uint64_t number = 0;   ///< where a branch leads: a position in the list of operations
        std::uint64_t number2 = 0;  ///< second operand
    };

    /// Why an expression yields nothing.
    enum class Failure {
        NotUnderstood,  ///< it has an operation that does not occur in call frames, or no sense
        NotInCopy,      ///< it reads memory beyond the copy of the stack
    };

    struct Result {
        std::optional<std::uint64_t> value;
        Failure failure = Failure::NotUnderstood;  ///< where there is no value
        std::uint64_t address = 0;                 ///< of what is not in the copy
    };

    /// @param bytes as they stand in the file
    /// @param startsWithCfa whether the CFA is there from the beginning, as it is for registers
    /// @return nothing where an operation is not understood, or a branch leads to none
    static std::optional<Expression> parse(std::span<const std::byte> bytes, bool startsWithCfa);

    /// @param cfa nothing while it is the CFA that is asked for
    Result evaluate(const Frame& frame, std::optional<std::uint64_t> cfa,
                    const StackCopy& stack) const;

    std::size_t size() const noexcept { return steps.size(); }

private:
    explicit Expression(std::vector<Operation> operations) : steps(std::move(operations)) {}

    std::vector<Operation> steps;
};

}  // namespace kolvan::profiler
