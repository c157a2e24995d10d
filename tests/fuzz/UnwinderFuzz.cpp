// The input is an ELF file that somebody has mapped. Its stack is made up: every word of it leads
// back into the file's code, or close by.
#include "companions/profiler/unwind/Unwinder.h"

#include "tests/fuzz/Fuzz.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::profiler;

constexpr std::uint64_t kCode = 0x5555'0000'0000;
constexpr std::uint64_t kStack = 0x7FFF'0000'0000;
constexpr std::size_t kStackWords = 512;
constexpr std::size_t kPlaces = 64;  // of the code, where a thread is said to be

// Addresses of code and of the stack itself, by turns.
std::vector<std::uint64_t> madeUpStack(std::size_t codeSize) {
    std::vector<std::uint64_t> words(kStackWords);
    for (std::size_t index = 0; index < words.size(); ++index) {
        words[index] = index % 3 == 0 ? kStack + index * 8 + 16 : kCode + index * 37 % codeSize;
    }
    return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    const std::vector<std::uint8_t> bytes(data, data + size);  // aligned, as mapped files are
    const auto object = ElfObject::fromMemory(std::as_bytes(std::span(bytes)), "/mapped");
    if (!object) {
        return -1;
    }
    AddressSpace space;
    space.map({.begin = kCode, .end = kCode + size, .path = "/mapped", .object = object});
    const std::vector<std::uint64_t> words = madeUpStack(size);
    const auto stack = std::as_bytes(std::span(words));
    Unwinder unwinder;
    for (std::size_t place = 0; place < kPlaces; ++place) {
        Registers registers;
        registers.values.fill(kStack + 64);
        registers.values[Registers::kStackPointer] = kStack;
        registers.values[Registers::kInstruction] = kCode + size * place / kPlaces;

        const UnwoundStack unwound = unwinder.unwind(registers, stack, space);

        require(!unwound.addresses.empty() && unwound.addresses.size() <= Unwinder::kMostFrames,
                "a stack has as many addresses as it may have");
        require(unwound.addresses.front() == registers.instruction(),
                "a stack begins where the thread is");
        require(std::all_of(unwound.addresses.begin(), unwound.addresses.end(),
                            [size](std::uint64_t address) {
                                return address >= kCode && address <= kCode + size;
                            }),
                "every address is one of code");
    }
    return 0;
}
