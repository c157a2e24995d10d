#include "companions/profiler/unwind/Expression.h"

#include "companions/profiler/unwind/ByteReader.h"

#include <dwarf.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kDeepest = 32;       // values; those in use need three
constexpr std::size_t kLongest = 64;       // operations; those in use have ten
constexpr std::size_t kMostSteps = 1'000;  // a branch may lead backwards

/// The place of an operation that does not stand in the expression.
constexpr std::uint64_t kNowhere = std::numeric_limits<std::uint64_t>::max();

/// The values of an expression. What makes no sense, too few values for instance, marks it broken
/// and goes on with zeros, so that it is asked about once, at the end.
class Values {
public:
    void push(std::uint64_t value) noexcept {
        broken = broken || depth == values.size();
        if (!broken) {
            values[depth++] = value;
        }
    }

    std::uint64_t pop() noexcept {
        broken = broken || depth == 0;
        return broken ? 0 : values[--depth];
    }

    /// @param index 0 is the one that was pushed last
    std::uint64_t peek(std::uint64_t index) noexcept {
        broken = broken || index >= depth;
        return broken ? 0 : values[depth - 1 - index];
    }

    void pushKnown(std::optional<std::uint64_t> value, std::uint64_t addend) noexcept {
        broken = broken || !value;
        push(value.value_or(0) + addend);
    }

    bool isBroken() const noexcept { return broken; }

private:
    std::array<std::uint64_t, kDeepest> values{};
    std::size_t depth = 0;
    bool broken = false;
};

std::int64_t asSigned(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
}

std::uint64_t shift(std::uint8_t code, std::uint64_t value, std::uint64_t distance) {
    if (code == DW_OP_shra) {
        return static_cast<std::uint64_t>(asSigned(value) >> (distance > 63 ? 63 : distance));
    }
    if (distance > 63) {
        return 0;
    }
    return code == DW_OP_shl ? value << distance : value >> distance;
}

/// Whether the operation is understood, and has no operands of its own.
bool standsAlone(std::uint8_t code) {
    switch (code) {
        case DW_OP_abs:
        case DW_OP_div:
        case DW_OP_mod:
        case DW_OP_xderef:
            return false;
        case DW_OP_deref:
        case DW_OP_nop:
        case DW_OP_call_frame_cfa:
            return true;
        default:
            return code >= DW_OP_dup && code <= DW_OP_lit31;
    }
}

/// @return nothing for what is no operation with two operands on the stack
std::optional<std::uint64_t> combine(std::uint8_t code, std::uint64_t left, std::uint64_t right) {
    switch (code) {
        case DW_OP_and:
            return left & right;
        case DW_OP_minus:
            return left - right;
        case DW_OP_mul:
            return left * right;
        case DW_OP_or:
            return left | right;
        case DW_OP_plus:
            return left + right;
        case DW_OP_xor:
            return left ^ right;
        case DW_OP_shl:
        case DW_OP_shr:
        case DW_OP_shra:
            return shift(code, left, right);
        case DW_OP_eq:
            return left == right ? 1 : 0;
        case DW_OP_ne:
            return left != right ? 1 : 0;
        case DW_OP_ge:
            return asSigned(left) >= asSigned(right) ? 1 : 0;
        case DW_OP_gt:
            return asSigned(left) > asSigned(right) ? 1 : 0;
        case DW_OP_le:
            return asSigned(left) <= asSigned(right) ? 1 : 0;
        case DW_OP_lt:
            return asSigned(left) < asSigned(right) ? 1 : 0;
        default:
            return std::nullopt;
    }
}

/// Operations that rearrange the values. @return false for others
bool rearrange(Values& values, const Expression::Operation& operation) {
    switch (operation.code) {
        case DW_OP_dup:
            values.push(values.peek(0));
            return true;
        case DW_OP_over:
            values.push(values.peek(1));
            return true;
        case DW_OP_pick:
            values.push(values.peek(operation.number));
            return true;
        case DW_OP_drop:
            (void)values.pop();  // that is what it is for
            return true;
        case DW_OP_swap: {
            const std::uint64_t top = values.pop();
            const std::uint64_t second = values.pop();
            values.push(top);
            values.push(second);
            return true;
        }
        case DW_OP_rot: {
            const std::uint64_t top = values.pop();
            const std::uint64_t second = values.pop();
            const std::uint64_t third = values.pop();
            values.push(top);
            values.push(third);
            values.push(second);
            return true;
        }
        default:
            return false;
    }
}

/// Operations that push what stands in the expression or in a register. @return false for others
bool pushOperand(Values& values, const Expression::Operation& operation, const Frame& frame,
                 std::optional<std::uint64_t> cfa) {
    if (operation.code >= DW_OP_lit0 && operation.code <= DW_OP_lit31) {
        values.push(std::uint64_t{operation.code} - DW_OP_lit0);
        return true;
    }
    if (operation.code >= DW_OP_breg0 && operation.code <= DW_OP_breg31) {
        values.pushKnown(frame.value(operation.code - std::uint64_t{DW_OP_breg0}),
                         operation.number);
        return true;
    }
    switch (operation.code) {
        case DW_OP_const1u:
        case DW_OP_const1s:
        case DW_OP_const2u:
        case DW_OP_const2s:
        case DW_OP_const4u:
        case DW_OP_const4s:
        case DW_OP_const8u:
        case DW_OP_const8s:
        case DW_OP_constu:
        case DW_OP_consts:
            values.push(operation.number);
            return true;
        case DW_OP_bregx:
            values.pushKnown(frame.value(operation.number), operation.number2);
            return true;
        case DW_OP_call_frame_cfa:
            values.pushKnown(cfa, 0);
            return true;
        default:
            return false;
    }
}

/// Operations that change the last value. @return false for others
bool change(Values& values, const Expression::Operation& operation) {
    switch (operation.code) {
        case DW_OP_plus_uconst:
            values.push(values.pop() + operation.number);
            return true;
        case DW_OP_neg:
            values.push(0 - values.pop());
            return true;
        case DW_OP_not:
            values.push(~values.pop());
            return true;
        case DW_OP_nop:
            return true;
        default:
            return false;
    }
}

/// Reads what follows an operation. @return false where it is not understood
bool readOperands(ByteReader& reader, Expression::Operation& operation) {
    const auto asWord = [](std::int64_t number) { return static_cast<std::uint64_t>(number); };
    if (operation.code >= DW_OP_breg0 && operation.code <= DW_OP_breg31) {
        operation.number = asWord(reader.readSigned());
        return true;
    }
    switch (operation.code) {
        case DW_OP_const1u:
        case DW_OP_pick:
        case DW_OP_deref_size:
            operation.number = reader.read<std::uint8_t>();
            return true;
        case DW_OP_const1s:
            operation.number = asWord(reader.read<std::int8_t>());
            return true;
        case DW_OP_const2u:
            operation.number = reader.read<std::uint16_t>();
            return true;
        case DW_OP_const2s:
            operation.number = asWord(reader.read<std::int16_t>());
            return true;
        case DW_OP_const4u:
            operation.number = reader.read<std::uint32_t>();
            return true;
        case DW_OP_const4s:
            operation.number = asWord(reader.read<std::int32_t>());
            return true;
        case DW_OP_const8u:
        case DW_OP_const8s:
            operation.number = reader.read<std::uint64_t>();
            return true;
        case DW_OP_constu:
        case DW_OP_plus_uconst:
            operation.number = reader.readUnsigned();
            return true;
        case DW_OP_consts:
            operation.number = asWord(reader.readSigned());
            return true;
        case DW_OP_bregx:
            operation.number = reader.readUnsigned();
            operation.number2 = asWord(reader.readSigned());
            return true;
        case DW_OP_bra:
        case DW_OP_skip: {
            // It counts bytes from the end of itself. Becomes a place in the bytes here, and a
            // position in the list when that is whole.
            const std::uint64_t distance = asWord(reader.read<std::int16_t>());
            operation.number = reader.position() + distance;
            return true;
        }
        default:
            return standsAlone(operation.code);
    }
}

}  // namespace

std::optional<Expression> Expression::parse(std::span<const std::byte> bytes, bool startsWithCfa) {
    std::vector<Operation> operations;
    std::vector<std::uint64_t> places;  // of the operations in the bytes
    if (startsWithCfa) {
        operations.push_back({.code = DW_OP_call_frame_cfa});
        places.push_back(kNowhere);
    }
    ByteReader reader(bytes);
    while (!reader.atEnd()) {
        places.push_back(reader.position());
        Operation operation{.code = reader.read<std::uint8_t>()};
        if (operations.size() == kLongest || !readOperands(reader, operation)) {
            return std::nullopt;
        }
        operations.push_back(operation);
    }
    places.push_back(bytes.size());  // a branch may lead to the end
    for (Operation& operation : operations) {
        if (operation.code == DW_OP_bra || operation.code == DW_OP_skip) {
            const auto place = std::find(places.begin(), places.end(), operation.number);
            if (place == places.end()) {
                return std::nullopt;
            }
            operation.number = static_cast<std::uint64_t>(place - places.begin());
        }
    }
    return reader.isBroken() ? std::nullopt : std::optional(Expression(std::move(operations)));
}

Expression::Result Expression::evaluate(const Frame& frame, std::optional<std::uint64_t> cfa,
                                        const StackCopy& stack) const {
    Values values;
    std::size_t position = 0;
    for (std::size_t count = 0; position < steps.size() && !values.isBroken(); ++count) {
        const Operation& operation = steps[position++];
        if (count == kMostSteps) {
            return {};
        }
        if (operation.code == DW_OP_skip) {
            position = operation.number;
        } else if (operation.code == DW_OP_bra) {
            position = values.pop() != 0 ? operation.number : position;
        } else if (operation.code == DW_OP_deref || operation.code == DW_OP_deref_size) {
            const std::size_t size = operation.code == DW_OP_deref ? 8 : operation.number;
            const std::uint64_t address = values.pop();
            if (values.isBroken() || size > 8) {
                return {};
            }
            const auto word = stack.read(address, size);
            if (!word) {
                return {std::nullopt, Failure::NotInCopy, address};
            }
            values.push(*word);
        } else if (!pushOperand(values, operation, frame, cfa) && !rearrange(values, operation) &&
                   !change(values, operation)) {
            const std::uint64_t right = values.pop();
            const std::uint64_t left = values.pop();
            const auto value = combine(operation.code, left, right);
            if (!value) {
                return {};
            }
            values.push(*value);
        }
    }
    const std::uint64_t result = values.pop();
    return values.isBroken() ? Result{} : Result{.value = result};
}

}  // namespace kolvan::profiler
