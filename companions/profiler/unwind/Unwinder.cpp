#include "companions/profiler/unwind/Unwinder.h"

#include "companions/profiler/unwind/BareCode.h"

#include <array>
#include <optional>
#include <utility>
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

/// Where an address stands in the file that is mapped there.
struct PlaceInFile {
    const ElfObject* object = nullptr;  // null where no file is
    std::uint64_t address = 0;          // as the object counts
};

PlaceInFile placeOf(std::uint64_t address, const AddressSpace& space) {
    const AddressSpace::Mapping* const mapping = space.find(address);
    const auto inObject = mapping == nullptr ? std::nullopt : mapping->addressInObject(address);
    return inObject ? PlaceInFile{mapping->object.get(), *inObject} : PlaceInFile();
}

/// Whether the code at `address` may wait for somebody's return: it has called him, or he handles a
/// signal.
bool isReturnAddress(std::uint64_t address, const AddressSpace& space) {
    const PlaceInFile before = placeOf(address - 1, space);
    return before.object != nullptr && (isBehindCall(*before.object, before.address + 1) ||
                                        returnsFromSignal(*before.object, before.address + 1));
}

/// The same for the return of the code at `callee`, as far as calls name whom they call.
bool isReturnAddressOf(std::uint64_t callee, std::uint64_t address, const AddressSpace& space) {
    const PlaceInFile before = placeOf(address - 1, space);
    const PlaceInFile called = placeOf(callee, space);
    if (before.object == nullptr || before.object != called.object) {
        return isReturnAddress(address, space);
    }
    return isBehindCallOf(*before.object, before.address + 1, called.address) ||
           returnsFromSignal(*before.object, before.address + 1);
}

/// Goes from a frame to its caller's where there are no rules: the oldest convention is to keep the
/// caller's frame pointer where the own one points to, and the return address above it.
/// @param isInChain whether another frame pointer has led here
/// @return false where the frame pointer holds something else
bool stepByFramePointer(Frame& frame, bool isInChain, const StackCopy& stack,
                        const AddressSpace& space) {
    const auto framePointer = frame.value(Registers::kFramePointer);
    if (!framePointer || *framePointer % sizeof(std::uint64_t) != 0 ||
        *framePointer < frame.registers.stackPointer()) {
        return false;
    }
    const auto callers = stack.read(*framePointer);
    const auto returnAddress = stack.read(*framePointer + 8);
    if (!callers || !returnAddress) {
        return false;
    }
    // What was compiled at run time has no file in which its calls could be looked up.
    const AddressSpace::Mapping* const mapping = space.find(*returnAddress - 1);
    const bool isCompiled = mapping != nullptr && !mapping->object;
    // A chain ends with a zero, which alone is as good as none: memory is full of zeros. What is
    // returned to there, a stack's maker may have put by hand.
    const bool isLast = *returnAddress == 0
                            ? isInChain
                            : *callers == 0 && placeOf(*returnAddress, space).object != nullptr;
    if (!isLast && !isCompiled && !isReturnAddress(*returnAddress, space)) {
        return false;
    }
    frame.known = 0;
    frame.set(Registers::kFramePointer, *callers);
    frame.set(Registers::kStackPointer, *framePointer + 16);
    frame.set(Registers::kInstruction, *returnAddress);
    return true;
}

/// The same by the first word that stands behind a call, as assembly, and C libraries without
/// tables, leave nothing else. What such code has saved is lost, unless it has saved nothing.
/// @return false where there is none nearby
bool stepBySearch(Frame& frame, std::size_t& wordsLeft, const StackCopy& stack,
                  const AddressSpace& space) {
    constexpr std::size_t kMostWords = 256;  // the farther away, the more of them are left-overs
    const std::uint64_t begin = frame.registers.stackPointer();
    for (std::size_t index = 0; index < kMostWords && wordsLeft > 0; ++index, --wordsLeft) {
        const std::uint64_t address = begin + index * sizeof(std::uint64_t);
        const auto word = stack.read(address);
        if (!word) {
            return false;
        }
        if (isReturnAddressOf(frame.registers.instruction(), *word, space)) {
            frame.known = index == 0 ? frame.known : 0;
            frame.set(Registers::kStackPointer, address + sizeof(std::uint64_t));
            frame.set(Registers::kInstruction, *word);
            return true;
        }
    }
    return false;
}

/// Goes from what the handler of a signal returns to, to what the signal has interrupted: the
/// kernel has put its registers on the stack, as sigreturn(2) takes them.
/// @return false where they are not in the copy
bool stepOutOfSignal(Frame& frame, const StackCopy& stack) {
    constexpr std::uint64_t kRegistersAt = 40;  // in ucontext_t; behind its flags, link and stack
    // DWARF numbers in the order of mcontext_t: r8 to r15, di si bp bx dx ax cx sp ip.
    constexpr std::array<std::size_t, Frame::kRegisters> kNumbers{8, 9, 10, 11, 12, 13, 14, 15, 5,
                                                                  4, 6, 3,  1,  0,  2,  7,  16};
    Frame interrupted;
    std::uint64_t address = frame.registers.stackPointer() + kRegistersAt;
    for (const std::size_t number : kNumbers) {
        const auto word = stack.read(address);
        if (!word) {
            return false;
        }
        interrupted.set(number, *word);
        address += sizeof(std::uint64_t);
    }
    frame = interrupted;
    return true;
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
        result.bySearch += place.bySearch ? 1 : 0;
        result.addresses.push_back(place.frame.registers.instruction());
    }
}

std::optional<UnwoundStack::End> Unwinder::stepOut(Place& place, const StackCopy& stack,
                                                   const AddressSpace& space) {
    // A call may be the last instruction of its function: what it returns to is another's.
    const Code code =
        codeAt(place.frame.registers.instruction() - (place.interrupted ? 0 : 1), space);
    static const FrameRules kNone;
    const FrameRules& rules = code.address ? rulesAt(*code.object, *code.address) : kNone;
    const auto end = rules.known ? stepByRules(rules, place.frame, stack)
                                 : stepWithoutRules(place, code, stack, space);
    if (end) {
        return end;
    }
    const std::uint64_t next = place.frame.registers.instruction();
    if (next == 0) {
        return End::Root;
    }
    if (rules.known) {
        place.interrupted = rules.signalFrame;
        place.byFramePointer = place.bySearch = false;
    }
    if (space.find(next - (place.interrupted ? 0 : 1)) == nullptr) {
        // Without rules, the register may have held anything.
        return rules.known ? End::Nonsense : End::NoRules;
    }
    return std::nullopt;
}

std::optional<UnwoundStack::End> Unwinder::stepWithoutRules(Place& place, const Code& code,
                                                            const StackCopy& stack,
                                                            const AddressSpace& space) {
    // Programs, and the threads of some libraries, begin in a few lines of assembly that set the
    // frame pointer to zero, and are left out where the object describes its other functions. Where
    // frame pointers have led here, the last one is zero by the same convention. In what was
    // interrupted, as the innermost frame is, the register may hold any zero.
    const bool endsChain =
        code.object != nullptr && (code.object->reader.hasFrames() || place.byFramePointer) &&
        !place.interrupted && place.frame.value(Registers::kFramePointer) == std::uint64_t{0};
    if (endsChain || (code.address && isProgramStart(code.object->file, *code.address))) {
        return End::Root;
    }
    const bool wasInterrupted = std::exchange(place.interrupted, false);
    const bool wasFoundBySearch = std::exchange(place.bySearch, false);
    const bool isInChain = std::exchange(place.byFramePointer, false);
    if (code.address) {
        const std::uint64_t next = *code.address + (wasInterrupted ? 0 : 1);
        if (returnsFromSignal(code.object->file, next)) {
            place.interrupted = stepOutOfSignal(place.frame, stack);
            return place.interrupted ? std::nullopt : std::optional(End::CopyEnds);
        }
        // Whoever makes a stack, for a coroutine for instance, puts by hand there what its first
        // function returns to.
        if (!wasInterrupted && !wasFoundBySearch && !isBehindCall(code.object->file, next)) {
            return End::Root;
        }
    }
    place.byFramePointer = stepByFramePointer(place.frame, isInChain, stack, space);
    if (!place.byFramePointer) {
        // A compiler at run time leaves more on the stack than the return addresses of files.
        place.bySearch =
            code.object != nullptr && stepBySearch(place.frame, place.wordsToSearch, stack, space);
    }
    return place.byFramePointer || place.bySearch ? std::nullopt : std::optional(End::NoRules);
}

Unwinder::Code Unwinder::codeAt(std::uint64_t address, const AddressSpace& space) {
    const AddressSpace::Mapping* const mapping = space.find(address);
    Code code;
    code.object = mapping == nullptr ? nullptr : knownObject(*mapping);
    if (code.object != nullptr) {
        code.address = mapping->addressInObject(address);
    }
    return code;
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
