// Calls itself in a way that the first argument names, and tells at the innermost place what its
// registers hold and what the C library's own unwinder says about the callers. Then it waits, with
// its stack as it is, until its standard input is closed. Built optimised, without frame pointers.
#include <algorithm>
#include <array>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <alloca.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

// Stores what a caller may rely on after the call: the registers that calls preserve, the stack
// pointer and the place behind the call, by their DWARF numbers.
extern "C" void kolvan_capture(std::uint64_t* registers);
asm(R"(
    .text
    .globl kolvan_capture
    .type kolvan_capture, @function
kolvan_capture:
    .cfi_startproc
    movq %rbx, 24(%rdi)
    movq %rbp, 48(%rdi)
    leaq 8(%rsp), %rax
    movq %rax, 56(%rdi)
    movq %r12, 96(%rdi)
    movq %r13, 104(%rdi)
    movq %r14, 112(%rdi)
    movq %r15, 120(%rdi)
    movq (%rsp), %rax
    movq %rax, 128(%rdi)
    ret
    .cfi_endproc
    .size kolvan_capture, . - kolvan_capture

    .globl kolvan_call_by_frame_pointer
    .type kolvan_call_by_frame_pointer, @function
kolvan_call_by_frame_pointer:
    pushq %rbp
    movq %rsp, %rbp
    call *%rdi
    popq %rbp
    ret
    .size kolvan_call_by_frame_pointer, . - kolvan_call_by_frame_pointer

    .globl kolvan_call_with_registers
    .type kolvan_call_with_registers, @function
kolvan_call_with_registers:
    pushq %rbx
    pushq %rbp
    pushq $0
    pushq $0
    pushq $0
    movq $1, %rbp
    call *%rdi
    addq $24, %rsp
    popq %rbp
    popq %rbx
    ret
    .size kolvan_call_with_registers, . - kolvan_call_with_registers

    .globl kolvan_call_on_stack
    .type kolvan_call_on_stack, @function
kolvan_call_on_stack:
    pushq %rbp
    pushq %rbx
    movq %rsp, %rbx
    movq %rsi, %rsp
    xorl %ebp, %ebp
    call *%rdi
    movq %rbx, %rsp
    popq %rbx
    popq %rbp
    ret
    .size kolvan_call_on_stack, . - kolvan_call_on_stack
)");
// Assembly of which no table tells: it keeps a frame pointer; uses that register for something
// else; calls on another stack, as the beginning of a coroutine.
extern "C" void kolvan_call_by_frame_pointer(void (*function)());
extern "C" void kolvan_call_with_registers(void (*function)());
extern "C" void kolvan_call_on_stack(void (*function)(), void* top);

namespace {

constexpr std::size_t kMostAddresses = 4'096;

// Keeps the compiler from turning a call into a jump, and from seeing through memory.
void barrier(const void* memory) {
    asm volatile("" : : "r"(memory) : "memory");
}

void writeWords(const std::uint64_t* words, std::size_t count) {
    const char* bytes = reinterpret_cast<const char*>(words);
    std::size_t left = count * sizeof *words;
    while (left > 0) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes, left);
        if (written <= 0) {
            std::abort();
        }
        bytes += written;
        left -= static_cast<std::size_t>(written);
    }
}

[[gnu::noinline]] void report() {
    static std::array<std::uint64_t, 17> registers;
    static std::array<void*, kMostAddresses> addresses;
    static std::array<std::uint64_t, kMostAddresses> words;
    kolvan_capture(registers.data());
    const int count = ::backtrace(addresses.data(), static_cast<int>(addresses.size()));
    for (std::size_t index = 0; index < static_cast<std::size_t>(count); ++index) {
        words[index] = reinterpret_cast<std::uint64_t>(addresses[index]);
    }
    const std::uint64_t length = static_cast<std::uint64_t>(count);
    writeWords(registers.data(), registers.size());
    writeWords(&length, 1);
    writeWords(words.data(), length);
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    barrier(&byte);
}

[[gnu::noinline]] void recurse(int depth) {
    if (depth > 0) {
        recurse(depth - 1);
    } else {
        report();
    }
    barrier(&depth);
}

[[gnu::noinline]] void recurseWithLargeFrame(int depth) {
    char room[25'000];
    room[0] = static_cast<char>(depth);
    barrier(room);
    if (depth > 0) {
        recurseWithLargeFrame(depth - 1);
    } else {
        report();
    }
    barrier(room);
}

[[gnu::noinline]] void recurseWithAlloca(int depth) {
    char* const room = static_cast<char*>(::alloca(static_cast<std::size_t>(100 + 1'000 * depth)));
    room[0] = static_cast<char>(depth);
    barrier(room);
    if (depth > 0) {
        recurseWithAlloca(depth - 1);
    } else {
        report();
    }
    barrier(room);
}

// The compiler aligns such a frame by hand, so that its distance from the caller's is not known.
[[gnu::noinline]] void recurseAligned(int depth) {
    alignas(256) char room[300];
    char* const more = static_cast<char*>(::alloca(static_cast<std::size_t>(100 + depth)));
    more[0] = room[0] = static_cast<char>(depth);
    barrier(room);
    barrier(more);
    if (depth > 0) {
        recurseAligned(depth - 1);
    } else {
        report();
    }
    barrier(room);
}

int compareAndReport(const void* left, const void* right) {
    static bool reported = false;
    if (!reported) {
        reported = true;
        report();
    }
    return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

[[gnu::noinline]] void sortWithReport() {
    std::array<int, 100> numbers{};
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        numbers[index] = static_cast<int>(index * 37 % 100);
    }
    std::qsort(numbers.data(), numbers.size(), sizeof(int), compareAndReport);
    barrier(numbers.data());
}

struct ReportAtEnd {
    ReportAtEnd() = default;
    ReportAtEnd(const ReportAtEnd&) = delete;
    ReportAtEnd& operator=(const ReportAtEnd&) = delete;
    [[gnu::noinline]] ~ReportAtEnd() { report(); }
};

[[gnu::noinline]] void fail(const char* text) {
    barrier(text);
    throw std::runtime_error(text);
}

[[gnu::noinline]] void failAndCleanUp() {
    const ReportAtEnd cleanUp;
    fail("while something must be cleaned up");
}

[[gnu::noinline]] void catchWhatFails(bool reportInHandler) {
    try {
        if (reportInHandler) {
            fail("to be caught");
        } else {
            failAndCleanUp();
        }
    } catch (const std::runtime_error& error) {
        if (reportInHandler) {
            report();
        }
        barrier(&error);
    }
}

void* makeStack(std::size_t size) {
    void* const memory =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::abort();
    }
    return memory;
}

constexpr std::size_t kStackSize = 256 * 1024;

void onSignal(int) {
    report();
    barrier(nullptr);
}

[[gnu::noinline]] void interrupt(bool ownStack) {
    struct sigaction action {};
    action.sa_handler = onSignal;
    if (ownStack) {
        stack_t stack{};
        stack.ss_sp = makeStack(kStackSize);
        stack.ss_size = kStackSize;
        if (::sigaltstack(&stack, nullptr) != 0) {
            std::abort();
        }
        action.sa_flags = SA_ONSTACK;
    }
    if (::sigaction(SIGUSR1, &action, nullptr) != 0 || ::raise(SIGUSR1) != 0) {
        std::abort();
    }
    barrier(&action);
}

[[gnu::noinline]] void callLibrary(const char* path) {
    void* const library = ::dlopen(path, RTLD_NOW);
    if (library == nullptr) {
        std::abort();
    }
    using Call = void (*)(void (*)());
    const auto call = reinterpret_cast<Call>(::dlsym(library, "kolvan_call_back"));
    call(report);
    barrier(library);
}

void recurseAndReport() {
    recurse(3);
    barrier(nullptr);
}

[[gnu::noinline]] void callOnStack() {
    char* const stack = static_cast<char*>(makeStack(kStackSize));
    kolvan_call_on_stack(recurseAndReport, stack + kStackSize);
    barrier(stack);
}

[[gnu::noinline]] void switchContext() {
    static ucontext_t here;
    static ucontext_t there;
    (void)::getcontext(&there);  // it has nothing to fail for
    there.uc_stack.ss_sp = makeStack(kStackSize);
    there.uc_stack.ss_size = kStackSize;
    there.uc_link = &here;
    ::makecontext(&there, recurseAndReport, 0);
    (void)::swapcontext(&here, &there);
    barrier(&there);
}

int recurseInClone(void*) {
    recurseAndReport();
    return 0;
}

[[gnu::noinline]] void callInClone() {
    char* const stack = static_cast<char*>(makeStack(kStackSize));
    const pid_t child =
        ::clone(recurseInClone, stack + kStackSize, CLONE_VM | CLONE_FILES | SIGCHLD, nullptr);
    (void)::waitpid(child, nullptr, 0);
    barrier(stack);
}

[[gnu::noinline]] void callInVfork() {
    const pid_t child = ::vfork();
    if (child == 0) {
        recurse(3);
        ::_exit(0);
    }
    barrier(&child);
}

// Two calls of code that was written into memory: push %rbp; mov %rsp,%rbp; call *%rdi; pop %rbp;
// ret
[[gnu::noinline]] void callWrittenCode() {
    const std::array<unsigned char, 8> code = {0x55, 0x48, 0x89, 0xE5, 0xFF, 0xD7, 0x5D, 0xC3};
    void* const memory =
        ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::memcpy(memory, code.data(), code.size());
    if (::mprotect(memory, 4096, PROT_READ | PROT_EXEC) != 0) {
        std::abort();
    }
    reinterpret_cast<void (*)(void (*)())>(memory)(report);
    barrier(memory);
}

int compare(const void* left, const void* right) {
    return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

void ignoreSignal(int number) {
    barrier(&number);
}

// What an observer looks at after every single instruction: first calls of library functions, which
// the loader resolves, the kernel's library, a signal, an exception on its way.
[[gnu::noinline]] void doEverything() {
    timespec time{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &time);
    (void)::clock_gettime(CLOCK_REALTIME, &time);
    std::array<int, 10> numbers = {5, 3, 8, 1, 9, 2, 7, 4, 6, 0};
    std::qsort(numbers.data(), numbers.size(), sizeof(int), compare);
    (void)::signal(SIGUSR2, ignoreSignal);
    (void)::raise(SIGUSR2);
    char text[100];
    (void)std::snprintf(text, sizeof text, "%d %s %f", numbers[3], "text", 3.25);
    barrier(text);
    void* const memory = std::malloc(std::strlen(text));
    barrier(memory);
    std::free(memory);
    try {
        fail("observed");
    } catch (const std::runtime_error& error) {
        barrier(error.what());
    }
}

[[gnu::noinline]] void doEverythingObserved() {
    (void)::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)::raise(SIGSTOP);
    doEverything();
    (void)::raise(SIGSTOP);
    barrier(nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string scenario = argc > 1 ? argv[1] : "";
    if (scenario == "plain") {
        recurse(3);
    } else if (scenario == "recursion") {
        recurse(500);
    } else if (scenario == "deep") {
        recurse(6'000);
    } else if (scenario == "large") {
        recurseWithLargeFrame(4);
    } else if (scenario == "alloca") {
        recurseWithAlloca(5);
    } else if (scenario == "aligned") {
        recurseAligned(5);
    } else if (scenario == "qsort") {
        sortWithReport();
    } else if (scenario == "catch") {
        catchWhatFails(/*reportInHandler=*/true);
    } else if (scenario == "cleanup") {
        catchWhatFails(/*reportInHandler=*/false);
    } else if (scenario == "signal") {
        interrupt(/*ownStack=*/false);
    } else if (scenario == "sigaltstack") {
        interrupt(/*ownStack=*/true);
    } else if (scenario == "thread") {
        std::thread([] { recurse(3); }).join();
    } else if (scenario == "library") {
        callLibrary(argv[2]);
    } else if (scenario == "assembly") {
        kolvan_call_by_frame_pointer(report);
    } else if (scenario == "registers") {
        kolvan_call_with_registers(report);
    } else if (scenario == "own-stack") {
        callOnStack();
    } else if (scenario == "context") {
        switchContext();
    } else if (scenario == "clone") {
        callInClone();
    } else if (scenario == "vfork") {
        callInVfork();
    } else if (scenario == "written") {
        callWrittenCode();
    } else if (scenario == "observed") {
        doEverythingObserved();
    } else {
        return 2;
    }
    return 0;
}
