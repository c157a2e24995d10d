#include "tests/support/SystemCalls.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/ptrace.h>
#include <sys/wait.h>

namespace kolvan::test {

namespace {

// What the system reports with PTRACE_O_TRACESYSGOOD in place of a signal, see ptrace(2).
constexpr int kCallStop = SIGTRAP | 0x80;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Returns what has stopped the thread: the number of a signal, or that of a call's stop.
int waitForStop(pid_t thread) {
    int status = 0;
    if (::waitpid(thread, &status, __WALL) != thread) {
        fail("waitpid");
    }
    if (!WIFSTOPPED(status)) {
        throw std::runtime_error("the program has ended");
    }
    return WSTOPSIG(status);
}

}  // namespace

SystemCalls::SystemCalls(pid_t program) : thread(program) {
    (void)waitForStop(thread);  // where the program takes the place of its starter
    if (::ptrace(PTRACE_SETOPTIONS, thread, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) !=
        0) {
        fail("ptrace");
    }
}

SystemCalls::~SystemCalls() {
    (void)::ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
}

void SystemCalls::advance() {
    __ptrace_syscall_info info{};
    do {
        runToNextStop();
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof(info), &info) < 0) {
            fail("ptrace");
        }
    } while (info.op != PTRACE_SYSCALL_INFO_ENTRY);
    callNumber = info.entry.nr;
    firstArgument = info.entry.args[0];
}

// Both where a call begins and where it ends.
void SystemCalls::runToNextStop() const {
    int signalNumber = 0;
    do {
        if (::ptrace(PTRACE_SYSCALL, thread, nullptr, signalNumber) != 0) {
            fail("ptrace");
        }
        signalNumber = waitForStop(thread);  // a signal is delivered when the program runs on
    } while (signalNumber != kCallStop);
}

}  // namespace kolvan::test
