#include "companions/profiler/unwind/RulesReader.h"

#include "companions/profiler/objects/Sections.h"

#include <dwarf.h>
#include <elfutils/libdw.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <optional>
#include <span>
#include <utility>

namespace kolvan::profiler {

namespace {

using Source = FrameRules::Source;
using Operations = std::span<const Dwarf_Op>;

constexpr std::size_t kLongestExpression = 64;  // operations; those in use have ten
constexpr int kReturnAddress = Registers::kInstruction;
constexpr int kRax = 0;
constexpr int kRbx = 3;

struct FrameFree {
    void operator()(Dwarf_Frame* frame) const noexcept { std::free(frame); }
};
using FrameHandle = std::unique_ptr<Dwarf_Frame, FrameFree>;

/// Whether functions leave the register to their callers as they have found it, by the ABI.
bool isPreserved(int number) {
    return number == kRbx || number == static_cast<int>(Registers::kFramePointer) ||
           (number >= 12 && number <= 15);
}

/// A register and a distance.
struct BasePlus {
    std::uint64_t base = 0;
    std::int64_t number = 0;
};

std::optional<BasePlus> asBasePlus(Operations operations) {
    if (operations.size() != 1) {
        return std::nullopt;
    }
    const Dwarf_Op& only = operations.front();
    if (only.atom == DW_OP_bregx) {
        return BasePlus{only.number, static_cast<std::int64_t>(only.number2)};
    }
    if (only.atom >= DW_OP_breg0 && only.atom <= DW_OP_breg31) {
        return BasePlus{only.atom - std::uint64_t{DW_OP_breg0},
                        static_cast<std::int64_t>(only.number)};
    }
    return std::nullopt;
}

/// The distance where the operations are: the CFA, plus that distance.
std::optional<std::int64_t> asDistanceFromCfa(Operations operations) {
    if (operations.empty() || operations.front().atom != DW_OP_call_frame_cfa) {
        return std::nullopt;
    }
    if (operations.size() == 1) {
        return 0;
    }
    return operations.size() == 2 && operations.back().atom == DW_OP_plus_uconst
               ? std::optional(static_cast<std::int64_t>(operations.back().number))
               : std::nullopt;
}

bool fits(std::int64_t number) {
    return number >= std::numeric_limits<std::int32_t>::min() &&
           number <= std::numeric_limits<std::int32_t>::max();
}

/// @return nothing where a branch leads to no operation, or the expression is too long
std::optional<Expression> makeExpression(Operations operations) {
    if (operations.size() > kLongestExpression) {
        return std::nullopt;
    }
    std::vector<Expression::Operation> steps;
    for (const Dwarf_Op& operation : operations) {
        Expression::Operation step{operation.atom, operation.number, operation.number2};
        if (operation.atom == DW_OP_bra || operation.atom == DW_OP_skip) {
            // A branch counts bytes from the end of itself, which is three bytes long.
            const Dwarf_Word target = operation.offset + 3 + operation.number;
            const auto place =
                std::find_if(operations.begin(), operations.end(), [target](const Dwarf_Op& other) {
                    // What libdw puts in front has no place of its own in the expression.
                    return other.offset == target && other.atom != DW_OP_call_frame_cfa;
                });
            if (place == operations.end()) {
                return std::nullopt;
            }
            step.number = static_cast<std::uint64_t>(place - operations.begin());
        }
        steps.push_back(step);
    }
    return Expression(std::move(steps));
}

/// Fills `rule` so that it yields what the operations do.
/// @return false where they cannot be followed
bool setRule(FrameRules& rules, FrameRules::Rule& rule, Operations operations, bool isAddress) {
    if (const auto distance = asDistanceFromCfa(operations); distance && fits(*distance)) {
        rule.source = isAddress ? Source::AtCfaPlus : Source::CfaPlus;
        rule.number = static_cast<std::int32_t>(*distance);
        return true;
    }
    const auto plain = asBasePlus(operations);
    if (plain && !isAddress && plain->base < Frame::kRegisters && fits(plain->number)) {
        rule.source = Source::Register;
        rule.base = static_cast<std::uint8_t>(plain->base);
        rule.number = static_cast<std::int32_t>(plain->number);
        return true;
    }
    auto expression = makeExpression(operations);
    if (!expression) {
        return false;
    }
    rule.source = isAddress ? Source::AtExpression : Source::Expression;
    rule.number = static_cast<std::int32_t>(rules.expressions.size());
    rules.expressions.push_back(std::move(*expression));
    return true;
}

bool readCfa(Dwarf_Frame* frame, FrameRules& rules) {
    Dwarf_Op* operations = nullptr;
    std::size_t count = 0;
    return ::dwarf_frame_cfa(frame, &operations, &count) == 0 && count > 0 &&
           setRule(rules, rules.cfa, Operations(operations, count), /*isAddress=*/false);
}

bool readRegister(Dwarf_Frame* frame, int number, FrameRules& rules) {
    std::array<Dwarf_Op, 3> room{};
    Dwarf_Op* first = nullptr;
    std::size_t count = 0;
    if (::dwarf_frame_register(frame, number, room.data(), &first, &count) != 0) {
        return false;
    }
    Operations operations(first, count);
    if (operations.empty()) {
        // libdw's way to tell "the same value" from "undefined".
        const bool same = first == nullptr;
        if (number == kReturnAddress) {
            rules.outermost = !same;
            // A return address that no call has changed would be this frame once more.
            return !same;
        }
        // Where nothing is said of a register, the ABI decides. libdw's table of it has rax in the
        // place of rbx.
        const bool kept = isPreserved(number) || (same && number != kRax);
        rules.kept |= kept ? 1U << number : 0U;
        return true;
    }
    FrameRules::Rule rule{.target = static_cast<std::uint8_t>(number)};
    if (operations.size() == 1 && operations.front().atom == DW_OP_regx) {
        if (operations.front().number >= Frame::kRegisters) {
            return false;
        }
        rule.base = static_cast<std::uint8_t>(operations.front().number);
    } else {
        const bool isAddress = operations.back().atom != DW_OP_stack_value;
        if (!setRule(rules, rule, isAddress ? operations : operations.first(count - 1),
                     isAddress)) {
            return false;
        }
    }
    rules.restored[rules.restoredCount++] = rule;
    return true;
}

FrameRules readRules(Dwarf_CFI* cfi, std::uint64_t address) {
    FrameRules rules;
    Dwarf_Frame* found = nullptr;
    if (::dwarf_cfi_addrframe(cfi, address, &found) != 0) {
        return rules;
    }
    const FrameHandle frame(found);
    Dwarf_Addr begin = 0;
    Dwarf_Addr end = 0;
    const int returnColumn = ::dwarf_frame_info(frame.get(), &begin, &end, &rules.signalFrame);
    bool whole = returnColumn == kReturnAddress && readCfa(frame.get(), rules);
    for (int number = 0; whole && number < static_cast<int>(Frame::kRegisters); ++number) {
        whole = readRegister(frame.get(), number, rules);
    }
    if (!whole) {
        return {};
    }
    rules.known = true;
    return rules;
}

}  // namespace

void RulesReader::DwarfEnd::operator()(Dwarf* dwarf) const noexcept {
    (void)::dwarf_end(dwarf);  // fails for null only
}

void RulesReader::CfiEnd::operator()(Dwarf_CFI* cfi) const noexcept {
    (void)::dwarf_cfi_end(cfi);  // fails for null only
}

RulesReader::RulesReader(std::shared_ptr<const ElfObject> file)
    : object(std::move(file)),
      exceptionFrames(object->isNative() ? ::dwarf_getcfi_elf(object->elf()) : nullptr) {}

FrameRules RulesReader::read(std::uint64_t address) {
    FrameRules rules;
    if (exceptionFrames) {
        rules = readRules(exceptionFrames.get(), address);
    }
    if (!rules.known) {
        if (!std::exchange(debugFramesSought, true)) {
            debugFrames = openDebugFrames();
        }
        if (debugFrames != nullptr) {
            rules = readRules(debugFrames, address);
        }
    }
    return rules;
}

Dwarf_CFI* RulesReader::openDebugFrames() {
    if (!object->isNative()) {
        return nullptr;
    }
    const ElfObject* holder = object.get();
    if (findSection(holder->elf(), ".debug_frame") == nullptr) {
        holder = object->debugFile();
        if (holder == nullptr || !holder->isNative() ||
            findSection(holder->elf(), ".debug_frame") == nullptr) {
            return nullptr;
        }
    }
    debugInformation.reset(::dwarf_begin_elf(holder->elf(), DWARF_C_READ, nullptr));
    return debugInformation ? ::dwarf_getcfi(debugInformation.get()) : nullptr;
}

}  // namespace kolvan::profiler
