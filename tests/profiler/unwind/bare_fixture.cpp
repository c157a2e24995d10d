// Calls itself in a way that the argument names, and tells at the innermost place what its
// registers hold and where its functions return to, the innermost first. Then it waits, with its
// stack as it is, until its standard input is closed. Built such that nothing describes its frames;
// with headers of C alone, as C libraries without a library of C++ have no others.
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

// Stores what a caller may rely on after the call, by DWARF numbers.
extern "C" void kolvan_capture(uint64_t* registers);
asm(R"(
    .text
    .globl kolvan_capture
    .type kolvan_capture, @function
kolvan_capture:
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
    .size kolvan_capture, . - kolvan_capture
)");

namespace {

uint64_t returnAddresses[64];
uint64_t depth;

// First of all in a function that waits for another one's return.
[[gnu::always_inline]] inline void noteCaller() {
    returnAddresses[depth++] = reinterpret_cast<uint64_t>(__builtin_return_address(0));
}

// Keeps the compiler from turning the call before it into a jump.
[[gnu::always_inline]] inline void comeBack() {
    asm volatile("" : : : "memory");
}

void writeWords(const uint64_t* words, size_t count) {
    const auto bytes = static_cast<ssize_t>(count * sizeof *words);
    if (write(STDOUT_FILENO, words, count * sizeof *words) != bytes) {
        abort();
    }
}

[[gnu::noinline]] void report() {
    noteCaller();
    static uint64_t registers[17];
    kolvan_capture(registers);
    const uint64_t length = depth + 1;
    writeWords(registers, 17);
    writeWords(&length, 1);
    writeWords(&registers[16], 1);
    while (depth > 0) {
        writeWords(&returnAddresses[--depth], 1);
    }
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    comeBack();
}

[[gnu::noinline]] void recurse(int levels) {
    noteCaller();
    if (levels > 0) {
        recurse(levels - 1);
    } else {
        report();
    }
    comeBack();
}

int compare(const void* left, const void* right) {
    noteCaller();
    report();
    return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

[[gnu::noinline]] void sort() {
    noteCaller();
    int numbers[2] = {2, 1};
    qsort(numbers, 2, sizeof numbers[0], compare);
    comeBack();
}

// It returns to where the handlers of signals do, which is no caller.
void onSignal(int) {
    report();
    comeBack();
}

[[gnu::noinline]] void interrupt() {
    noteCaller();
    (void)signal(SIGUSR1, onSignal);
    (void)raise(SIGUSR1);
    comeBack();
}

}  // namespace

int main(int argc, char** argv) {
    noteCaller();
    const char* const scenario = argc > 1 ? argv[1] : "";
    if (strcmp(scenario, "plain") == 0) {
        recurse(5);
    } else if (strcmp(scenario, "qsort") == 0) {
        sort();
    } else if (strcmp(scenario, "signal") == 0) {
        interrupt();
    } else {
        return 2;
    }
    return 0;
}
