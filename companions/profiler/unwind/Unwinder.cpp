#include "companions/profiler/unwind/Unwinder.h"

#include <optional>
#include <variant>

namespace kolvan::profiler {

namespace {

using End = UnwoundStack::End;
using Source = FrameRules::Source;

// About 250 bytes each. Of a large program, some ten thousand places are ever seen on a stack.
constexpr std::size_t kMostRemembered = 65'536;
constexpr std::size_t kMostObjects = 1'024;
constexpr std::uint64_t kEndOfAddresses = std::uint64_t{1} << 56;  // that a program can have

/// A value, or why there is none.
using Value = std::variant<std::uint64_t, End>;

/// Why the word at `address` cannot be read.
End endForMissing(std::uint64_t address, const Frame& frame) {
    const bool above = address >= frame.registers.stackPointer() && address < kEndOfAddresses;
    return above ? End::CopyEnds : End::Nonsense;
}

Value readWord(const StackCopy& stack, std::uint64_t address, const Frame& frame) {
    const auto word = stack.read(address);
    return word ? Value(*word) : Value(endForMissing(address, frame));
}

/// What a rule yields. @param cfa nothing while it is the CFA that is asked for
Value apply(const FrameRules& rules, const FrameRules::Rule& rule, const Frame& frame,
            std::optional<std::uint64_t> cfa, const StackCopy& stack) {
    const auto distance = static_cast<std::uint64_t>(std::int64_t{rule.number});
    if (rule.source == Source::Register) {
        const auto value = frame.value(rule.base);
        return value ? Value(*value + distance) : Value(End::Nonsense);
    }
    if (rule.source == Source::CfaPlus || rule.source == Source::AtCfaPlus) {
        if (!cfa) {
            return End::Nonsense;
        }
        return rule.source == Source::CfaPlus ? Value(*cfa + distance)
                                              : readWord(stack, *cfa + distance, frame);
    }
    const auto result =
        rules.expressions[static_cast<std::size_t>(rule.number)].evaluate(frame, cfa, stack);
    if (!result.value) {
        return result.failure == Expression::Failure::NotInCopy
                   ? endForMissing(result.address, frame)
                   : End::NoRules;
    }
    return rule.source == Source::Expression ? Value(*result.value)
                                             : readWord(stack, *result.value, frame);
}

/// Whether a function on its way out has taken the register's value from the stack already.
/// Compilers do not say so: the rule still names the word, which lies below the stack pointer now.
bool isTakenBack(const FrameRules::Rule& rule, const Frame& frame, std::uint64_t cfa) {
    return rule.source == Source::AtCfaPlus && rule.target != Registers::kInstruction &&
           cfa + static_cast<std::uint64_t>(std::int64_t{rule.number}) <
               frame.registers.stackPointer();
}

/// Goes from a frame to its caller's by rules.
/// @return why it cannot; nothing when `frame` is the caller's now
std::optional<End> stepByRules(const FrameRules& rules, Frame& frame, const StackCopy& stack) {
    if (rules.outermost) {
        return End::Root;
    }
    const Value cfaOrEnd = apply(rules, rules.cfa, frame, std::nullopt, stack);
    if (const End* const end = std::get_if<End>(&cfaOrEnd)) {
        return *end;
    }
    const std::uint64_t cfa = std::get<std::uint64_t>(cfaOrEnd);
    // The handler of a signal may have a stack of its own, above or below that of what it
    // interrupts.
    const bool grows = rules.signalFrame || cfa > frame.registers.stackPointer();
    if (!grows || cfa >= kEndOfAddresses) {
        return End::Nonsense;
    }
    Frame caller = frame;
    caller.known &= rules.kept;
    for (const FrameRules::Rule& rule : rules.restoredRules()) {
        if (isTakenBack(rule, frame, cfa)) {
            caller.known |= frame.known & (1U << rule.target);
            continue;
        }
        const Value value = apply(rules, rule, frame, cfa, stack);
        if (const auto* const word = std::get_if<std::uint64_t>(&value)) {
            caller.set(rule.target, *word);
        } else if (rule.target == Registers::kInstruction) {
            return std::get<End>(value);
        }
    }
    if (!caller.value(Registers::kInstruction) || !caller.value(Registers::kStackPointer)) {
        return End::Nonsense;
    }
    frame = caller;
    return std::nullopt;
}

/// Goes from a frame to its caller's where there are no rules: the oldest convention is to keep the
/// caller's frame pointer where the own one points to, and the return address above it.
std::optional<End> stepByFramePointer(Frame& frame, const StackCopy& stack) {
    const auto framePointer = frame.value(Registers::kFramePointer);
    if (!framePointer || *framePointer % sizeof(std::uint64_t) != 0 ||
        *framePointer < frame.registers.stackPointer()) {
        return End::NoRules;
    }
    const auto callers = stack.read(*framePointer);
    const auto returnAddress = stack.read(*framePointer + 8);
    if (!callers || !returnAddress) {
        return End::NoRules;
    }
    frame.known = 0;
    frame.set(Registers::kFramePointer, *callers);
    frame.set(Registers::kStackPointer, *framePointer + 16);
    frame.set(Registers::kInstruction, *returnAddress);
    return std::nullopt;
}

}  // namespace

UnwoundStack Unwinder::unwind(const Registers& registers, std::span<const std::byte> stack,
                              const AddressSpace& space) {
    const StackCopy copy(registers.stackPointer(), stack);
    Place place{.frame = {registers}, .interrupted = true};
    UnwoundStack result;
    result.addresses.push_back(registers.instruction());
    while (true) {
        if (const auto end = stepOut(place, copy, space)) {
            result.end = *end;
            return result;
        }
        if (result.addresses.size() == kMostFrames) {
            result.end = End::Limit;
            return result;
        }
        if (place.interrupted) {
            result.interrupted.push_back(result.addresses.size());
        }
        result.byFramePointer += place.byFramePointer ? 1 : 0;
        result.addresses.push_back(place.frame.registers.instruction());
    }
}

std::optional<UnwoundStack::End> Unwinder::stepOut(Place& place, const StackCopy& stack,
                                                   const AddressSpace& space) {
    // A call may be the last instruction of its function: what it returns to is another's.
    const std::uint64_t address = place.frame.registers.instruction() - (place.interrupted ? 0 : 1);
    const AddressSpace::Mapping* const mapping = space.find(address);
    KnownObject* const object = mapping == nullptr ? nullptr : knownObject(*mapping);
    const auto addressInObject =
        object == nullptr ? std::nullopt : mapping->addressInObject(address);
    static const FrameRules kNone;
    const FrameRules& rules = addressInObject ? rulesAt(*object, *addressInObject) : kNone;
    // Programs, and the threads of some libraries, begin in a few lines of assembly that set the
    // frame pointer to zero, and are left out where the object describes its other functions.
    if (!rules.known && object != nullptr && object->reader.hasFrames() && !place.innermost &&
        place.frame.value(Registers::kFramePointer) == std::uint64_t{0}) {
        return End::Root;
    }
    const auto end = rules.known ? stepByRules(rules, place.frame, stack)
                                 : stepByFramePointer(place.frame, stack);
    if (end) {
        return end;
    }
    const std::uint64_t next = place.frame.registers.instruction();
    if (next == 0) {
        return End::Root;
    }
    place.innermost = false;
    place.interrupted = rules.signalFrame;
    place.byFramePointer = !rules.known;
    if (space.find(next - (place.interrupted ? 0 : 1)) == nullptr) {
        // Without rules, the register may have held anything.
        return rules.known ? End::Nonsense : End::NoRules;
    }
    return std::nullopt;
}

Unwinder::KnownObject* Unwinder::knownObject(const AddressSpace::Mapping& mapping) {
    const auto& object = mapping.object;
    if (!object) {
        return nullptr;
    }
    const auto known = objects.find(object.get());
    if (known != objects.end()) {
        return &known->second;
    }
    if (objects.size() == kMostObjects) {
        forget();
    }
    return &objects.try_emplace(object.get(), object).first->second;
}

const FrameRules& Unwinder::rulesAt(KnownObject& object, std::uint64_t address) {
    const auto known = object.rules.find(address);
    if (known != object.rules.end()) {
        return known->second;
    }
    if (remembered >= kMostRemembered) {
        for (auto& [file, other] : objects) {
            other.rules.clear();
        }
        remembered = 0;
    }
    const FrameRules& rules =
        object.rules.emplace(address, object.reader.read(address)).first->second;
    remembered += 1;
    for (const Expression& expression : rules.expressions) {
        remembered += expression.size();
    }
    return rules;
}

void Unwinder::forget() {
    objects.clear();
    remembered = 0;
}

}  // namespace kolvan::profiler
