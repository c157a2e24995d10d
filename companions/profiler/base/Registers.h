#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kolvan::profiler {

/// The registers of a thread that tell where it is and who called it, by their DWARF numbers
/// (System V ABI for x86-64, figure 3.36): 0 rax, 1 rdx, 2 rcx, 3 rbx, 4 rsi, 5 rdi, 6 rbp, 7 rsp,
/// 8 to 15 r8 to r15, 16 the return address, which is where the thread is.
struct Registers {
    static constexpr std::size_t kFramePointer = 6;
    static constexpr std::size_t kStackPointer = 7;
    static constexpr std::size_t kInstruction = 16;

    std::array<std::uint64_t, 17> values{};

    std::uint64_t stackPointer() const noexcept { return values[kStackPointer]; }
    std::uint64_t instruction() const noexcept { return values[kInstruction]; }
};

}  // namespace kolvan::profiler
