#include "companions/profiler/unwind/FrameProgram.h"

#include <dwarf.h>

#include <array>
#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace kolvan::profiler {

namespace {

using Source = FrameRules::Source;
using Bytes = std::span<const std::byte>;

constexpr std::size_t kDeepest = 32;  // remembered states; those in use have two

/// What is said of one register, or of the CFA.
struct State {
    enum class Kind : std::uint8_t {
        Unspecified,
        Undefined,
        Same,
        AtCfaPlus,
        CfaPlus,
        Register,
        AtExpression,
        Expression,
    };

    Kind kind = Kind::Unspecified;
    std::uint64_t base = 0;  // register that it is made from
    std::int64_t number = 0;
    Bytes expression{};
};

struct Row {
    State cfa;
    std::array<State, Frame::kRegisters> registers;
};

/// Whether functions leave the register to their callers as they have found it, by the ABI.
bool isPreserved(std::size_t number) {
    constexpr std::size_t kRbx = 3;
    return number == kRbx || number == Registers::kFramePointer || (number >= 12 && number <= 15);
}

/// Executes one program after the other, up to an address.
class Machine {
public:
    Machine(const FrameTable::Function& describedFunction, std::uint64_t wanted)
        : common(describedFunction.common), location(describedFunction.begin), target(wanted) {}

    /// @return false where an instruction is not understood
    bool execute(Bytes program) {
        ByteReader reader(program);
        while (!reader.atEnd() && location <= target) {
            const auto code = reader.read<std::uint8_t>();
            if (!executeShort(code, reader) && !executeMove(code, reader) &&
                !executeCfa(code, reader) && !executeRegister(code, reader)) {
                return false;
            }
        }
        return !reader.isBroken();
    }

    /// What the function's program goes back to when it "restores" a register.
    void keepInitial() { initial = row; }

    const Row& result() const { return row; }

private:
    /// Instructions with an operand in their lower six bits. @return false for others
    bool executeShort(std::uint8_t code, ByteReader& reader) {
        const std::uint8_t operand = code & 0x3FU;
        switch (code & 0xC0U) {
            case DW_CFA_advance_loc:
                advance(operand);
                return true;
            case DW_CFA_offset:
                set(operand, State::Kind::AtCfaPlus, factored(reader.readUnsigned()));
                return true;
            case DW_CFA_restore:
                restore(operand);
                return true;
            default:
                return false;
        }
    }

    /// Instructions that lead on in the code, or to a former state. @return false for others
    bool executeMove(std::uint8_t code, ByteReader& reader) {
        switch (code) {
            case DW_CFA_nop:
                return true;
            case DW_CFA_advance_loc1:
                advance(reader.read<std::uint8_t>());
                return true;
            case DW_CFA_advance_loc2:
                advance(reader.read<std::uint16_t>());
                return true;
            case DW_CFA_advance_loc4:
                advance(reader.read<std::uint32_t>());
                return true;
            case DW_CFA_GNU_args_size:
                (void)reader.readUnsigned();  // for exceptions' handlers only
                return true;
            case DW_CFA_remember_state:
                if (remembered.size() == kDeepest) {
                    return false;
                }
                remembered.push_back(row);
                return true;
            case DW_CFA_restore_state:
                if (remembered.empty()) {
                    return false;
                }
                row = remembered.back();
                remembered.pop_back();
                return true;
            default:
                return false;
        }
    }

    /// Instructions about the CFA. @return false for others
    bool executeCfa(std::uint8_t code, ByteReader& reader) {
        switch (code) {
            case DW_CFA_def_cfa:
                row.cfa = {.kind = State::Kind::Register, .base = reader.readUnsigned()};
                row.cfa.number = static_cast<std::int64_t>(reader.readUnsigned());
                return true;
            case DW_CFA_def_cfa_sf:
                row.cfa = {.kind = State::Kind::Register, .base = reader.readUnsigned()};
                row.cfa.number = factored(reader.readSigned());
                return true;
            case DW_CFA_def_cfa_register:
                row.cfa.base = reader.readUnsigned();
                return row.cfa.kind == State::Kind::Register;
            case DW_CFA_def_cfa_offset:
                row.cfa.number = static_cast<std::int64_t>(reader.readUnsigned());
                return row.cfa.kind == State::Kind::Register;
            case DW_CFA_def_cfa_offset_sf:
                row.cfa.number = factored(reader.readSigned());
                return row.cfa.kind == State::Kind::Register;
            case DW_CFA_def_cfa_expression:
                row.cfa = {.kind = State::Kind::Expression};
                row.cfa.expression = reader.take(reader.readUnsigned());
                return true;
            default:
                return false;
        }
    }

    /// Instructions about a register, whose number comes first. @return false for others
    bool executeRegister(std::uint8_t code, ByteReader& reader) {
        const std::uint64_t number = reader.readUnsigned();
        switch (code) {
            case DW_CFA_undefined:
                set(number, State::Kind::Undefined);
                return true;
            case DW_CFA_same_value:
                set(number, State::Kind::Same);
                return true;
            case DW_CFA_restore_extended:
                restore(number);
                return true;
            case DW_CFA_register: {
                const std::uint64_t base = reader.readUnsigned();
                if (State* const state = set(number, State::Kind::Register)) {
                    state->base = base;
                }
                return true;
            }
            case DW_CFA_offset_extended:
                set(number, State::Kind::AtCfaPlus, factored(reader.readUnsigned()));
                return true;
            case DW_CFA_GNU_negative_offset_extended:
                set(number, State::Kind::AtCfaPlus, factored(0 - reader.readUnsigned()));
                return true;
            case DW_CFA_offset_extended_sf:
                set(number, State::Kind::AtCfaPlus, factored(reader.readSigned()));
                return true;
            case DW_CFA_val_offset:
                set(number, State::Kind::CfaPlus, factored(reader.readUnsigned()));
                return true;
            case DW_CFA_val_offset_sf:
                set(number, State::Kind::CfaPlus, factored(reader.readSigned()));
                return true;
            case DW_CFA_expression:
            case DW_CFA_val_expression: {
                const Bytes expression = reader.take(reader.readUnsigned());
                State* const state =
                    set(number, code == DW_CFA_expression ? State::Kind::AtExpression
                                                          : State::Kind::Expression);
                if (state != nullptr) {
                    state->expression = expression;
                }
                return true;
            }
            default:
                return false;
        }
    }

    /// Registers that are of no use here, those of vectors for instance, are passed over.
    State* set(std::uint64_t number, State::Kind kind, std::int64_t value = 0) {
        if (number >= row.registers.size()) {
            return nullptr;
        }
        row.registers[number] = {.kind = kind, .number = value};
        return &row.registers[number];
    }

    void restore(std::uint64_t number) {
        if (number < row.registers.size()) {
            row.registers[number] = initial.registers[number];
        }
    }

    void advance(std::uint64_t distance) { location += distance * common.codeFactor; }

    /// Broken files may make it overflow: that wraps around, as it does for unsigned numbers.
    template <typename Number>
    std::int64_t factored(Number number) const {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(number) *
                                         static_cast<std::uint64_t>(common.dataFactor));
    }

    const FrameTable::Common& common;
    std::uint64_t location;
    const std::uint64_t target;
    Row row;
    Row initial;
    std::vector<Row> remembered;
};

bool fits(std::int64_t number) {
    return number >= std::numeric_limits<std::int32_t>::min() &&
           number <= std::numeric_limits<std::int32_t>::max();
}

/// Makes the rule that yields what `state` says.
/// @return false where it cannot be followed
bool makeRule(const State& state, FrameRules& rules, FrameRules::Rule& rule, bool startsWithCfa) {
    if (state.kind == State::Kind::Expression || state.kind == State::Kind::AtExpression) {
        auto expression = Expression::parse(state.expression, startsWithCfa);
        if (!expression) {
            return false;
        }
        rule.source =
            state.kind == State::Kind::Expression ? Source::Expression : Source::AtExpression;
        rule.number = static_cast<std::int32_t>(rules.expressions.size());
        rules.expressions.push_back(std::move(*expression));
        return true;
    }
    rule.source = state.kind == State::Kind::Register  ? Source::Register
                  : state.kind == State::Kind::CfaPlus ? Source::CfaPlus
                                                       : Source::AtCfaPlus;
    rule.base = static_cast<std::uint8_t>(state.base);
    rule.number = static_cast<std::int32_t>(state.number);
    return state.base < Frame::kRegisters && fits(state.number);
}

/// @return false where the register's value cannot be had although something is said about it
bool addRegister(std::size_t number, State state, FrameRules& rules) {
    if (state.kind == State::Kind::Unspecified && number == Registers::kStackPointer) {
        state.kind = State::Kind::CfaPlus;  // that is what the CFA is
    }
    switch (state.kind) {
        case State::Kind::Unspecified:
            rules.kept |= isPreserved(number) ? 1U << number : 0U;
            return true;
        case State::Kind::Same:
            rules.kept |= 1U << number;
            return true;
        case State::Kind::Undefined:
            return true;
        default:
            break;
    }
    FrameRules::Rule rule{.target = static_cast<std::uint8_t>(number)};
    if (!makeRule(state, rules, rule, /*startsWithCfa=*/true)) {
        return false;
    }
    rules.restored[rules.restoredCount++] = rule;
    return true;
}

}  // namespace

FrameRules executeFrameProgram(const FrameTable::Function& function, std::uint64_t address) {
    using Kind = State::Kind;
    Machine machine(function, address);
    if (function.common.returnColumn != Registers::kInstruction ||
        !machine.execute(function.common.program)) {
        return {};
    }
    machine.keepInitial();
    if (!machine.execute(function.program)) {
        return {};
    }
    const Row& row = machine.result();
    const Kind returnKind = row.registers[Registers::kInstruction].kind;
    FrameRules rules;
    rules.signalFrame = function.common.signalFrame;
    rules.outermost = returnKind == Kind::Undefined;
    // A return address that no call has changed would be this frame once more.
    if (row.cfa.kind == Kind::Unspecified || returnKind == Kind::Unspecified ||
        returnKind == Kind::Same || !makeRule(row.cfa, rules, rules.cfa, /*startsWithCfa=*/false)) {
        return {};
    }
    for (std::size_t number = 0; number < row.registers.size(); ++number) {
        if (!addRegister(number, row.registers[number], rules)) {
            return {};
        }
    }
    rules.known = true;
    return rules;
}

}  // namespace kolvan::profiler
