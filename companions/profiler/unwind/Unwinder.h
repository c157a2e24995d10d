#pragma once

#include "companions/profiler/base/Registers.h"
#include "companions/profiler/unwind/AddressSpace.h"
#include "companions/profiler/unwind/Frame.h"
#include "companions/profiler/unwind/FrameRules.h"
#include "companions/profiler/unwind/RulesReader.h"
#include "companions/profiler/unwind/StackCopy.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

namespace kolvan::profiler {

/// Where a thread was, and who called it.
struct UnwoundStack {
    /// Why there are no further addresses.
    enum class End {
        Root,      ///< the thread begins here
        CopyEnds,  ///< a word that is needed lies beyond the copy of the stack
        NoRules,   ///< code that says nothing of its frames, and nothing else leads to its caller
        Limit,     ///< there are more than `Unwinder::kMostFrames`
        Nonsense,  ///< the stack does not fit the code: broken rules, or registers of another stack
    };

    /// Innermost first. The first is the instruction to be executed next, the others are return
    /// addresses: the call stands before them.
    std::vector<std::uint64_t> addresses;
    /// Positions in `addresses`, ascending, of what is no return address, because a signal has
    /// interrupted it: the instruction to be executed next, as the first is.
    std::vector<std::size_t> interrupted;
    End end = End::NoRules;
    /// How many addresses were found by following the frame pointer, where there were no rules.
    /// Such an address is probable, not certain.
    std::size_t byFramePointer = 0;
    /// How many were found, in code without rules and without a frame pointer, as the first word of
    /// the stack that stands behind a call. Such an address is less probable.
    std::size_t bySearch = 0;
};

/// Finds the callers of a thread by the call frame information of the code that it runs, from a
/// copy of its stack. What it has once read of an address, it remembers. One thread at a time.
class Unwinder {
public:
    static constexpr std::size_t kMostFrames = 4'096;

    /// @param stack begins at the stack pointer in `registers`; as much of it as there is
    UnwoundStack unwind(const Registers& registers, std::span<const std::byte> stack,
                        const AddressSpace& space);

private:
    /// Of one stack: as many as its copy has. Signals may lead in a circle.
    static constexpr std::size_t kMostWordsSearched = 8'192;

    struct KnownObject {
        explicit KnownObject(const std::shared_ptr<const ElfObject>& object)
            : file(*object), reader(object) {}

        const ElfObject& file;
        RulesReader reader;  // keeps the object alive, whose address is the key
        std::unordered_map<std::uint64_t, FrameRules> rules;  // by address in the object
    };

    /// How far the way out has led.
    struct Place {
        Frame frame;
        bool interrupted = false;  // the instruction is the next to be executed, no return address
        bool byFramePointer = false;
        bool bySearch = false;
        std::size_t wordsToSearch = kMostWordsSearched;
    };

    /// Where a frame's instruction stands.
    struct Code {
        KnownObject* object = nullptr;
        std::optional<std::uint64_t> address;  // in the object
    };

    Code codeAt(std::uint64_t address, const AddressSpace& space);
    std::optional<UnwoundStack::End> stepWithoutRules(Place& place, const Code& code,
                                                      const StackCopy& stack,
                                                      const AddressSpace& space);

    /// Goes on to the caller.
    /// @return why it cannot; nothing when `place` is the caller's now
    std::optional<UnwoundStack::End> stepOut(Place& place, const StackCopy& stack,
                                             const AddressSpace& space);
    /// @return null when the mapping has no object
    KnownObject* knownObject(const AddressSpace::Mapping& mapping);
    /// @return rules that are valid until the next call
    const FrameRules& rulesAt(KnownObject& object, std::uint64_t address);
    void forget();

    std::unordered_map<const ElfObject*, KnownObject> objects;
    std::size_t remembered = 0;  // rules and operations in them, of all objects
};

}  // namespace kolvan::profiler
