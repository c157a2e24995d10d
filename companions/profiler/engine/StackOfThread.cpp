#include "companions/profiler/engine/StackOfThread.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>

namespace kolvan::profiler {

std::size_t readStack(pid_t process, std::uint64_t address, std::vector<std::byte>& room) {
    constexpr std::uint64_t kPage = 4096;
    std::vector<iovec> pages;
    std::uint64_t next = address;
    const std::uint64_t end = address + room.size();
    while (next < end) {
        const std::uint64_t pageEnd = std::min(end, (next / kPage + 1) * kPage);
        pages.push_back({reinterpret_cast<void*>(next), pageEnd - next});  // NOLINT: their address
        next = pageEnd;
    }
    const iovec own{room.data(), room.size()};
    const ssize_t count = ::process_vm_readv(process, &own, 1, pages.data(), pages.size(), 0);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

std::optional<Registers> registersOfSleeping(pid_t process, pid_t thread) {
    // proc_pid_syscall(5): number, six arguments, stack pointer, instruction; or one word.
    constexpr int kFieldsBefore = 7;
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/syscall");
    std::string field;
    for (int i = 0; i < kFieldsBefore; ++i) {
        file >> field;
    }
    Registers registers;
    file >> std::hex >> registers.values[Registers::kStackPointer] >>
        registers.values[Registers::kInstruction];
    return file ? std::optional(registers) : std::nullopt;
}

std::optional<Registers> registersOfStopped(pid_t thread) {
    user_regs_struct user{};
    if (::ptrace(PTRACE_GETREGS, thread, nullptr, &user) != 0) {
        return std::nullopt;
    }
    Registers registers;
    registers.values = {user.rax, user.rdx, user.rcx, user.rbx, user.rsi, user.rdi,
                        user.rbp, user.rsp, user.r8,  user.r9,  user.r10, user.r11,
                        user.r12, user.r13, user.r14, user.r15, user.rip};
    constexpr unsigned long long kCompatibilityMode = 0x23;  // the code segment of 32-bit programs
    return user.cs == kCompatibilityMode ? std::nullopt : std::optional(registers);
}

}  // namespace kolvan::profiler
