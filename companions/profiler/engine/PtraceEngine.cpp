#include "companions/profiler/engine/PtraceEngine.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/StackOfThread.h"
#include "companions/profiler/engine/Tasks.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>

#include <sys/ptrace.h>
#include <sys/timerfd.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// What else a stop may tell than that we have asked for it: ptrace(2), PTRACE_O_*.
constexpr unsigned long kOptions = PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
constexpr unsigned long kOptionsForChildren = PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;

/// Nanoseconds; well above what a stop costs its thread.
constexpr std::uint64_t kStopCost = 500'000;

/// How many times as long as reading the mappings and names of a process has taken they are good
/// for: of a small process they are read at each look, of one with thousands some times a second.
constexpr std::uint64_t kRestAfterNews = 20;

std::uint64_t now() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::steady_clock::now().time_since_epoch())  // CLOCK_MONOTONIC
            .count());
}

/// Processor time of a thread so far; 0 when it has ended, or the system does not count.
std::uint64_t cpuOf(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/schedstat");
    std::uint64_t nanoseconds = 0;
    file >> nanoseconds;
    return nanoseconds;
}

std::optional<Registers> registersOf(pid_t thread) {
    user_regs_struct user{};
    if (::ptrace(PTRACE_GETREGS, thread, nullptr, &user) != 0) {
        return std::nullopt;
    }
    Registers registers;
    registers.values = {user.rax, user.rdx, user.rcx, user.rbx, user.rsi, user.rdi,
                        user.rbp, user.rsp, user.r8,  user.r9,  user.r10, user.r11,
                        user.r12, user.r13, user.r14, user.r15, user.rip};
    // The code segment of 32-bit programs; their stacks cannot be unwound here.
    constexpr unsigned long long kCompatibilityMode = 0x23;
    return user.cs == kCompatibilityMode ? std::nullopt : std::optional(registers);
}

bool isSame(const CodeMapping& one, const CodeMapping& other) {
    return one.end == other.end && one.fileOffset == other.fileOffset &&
           one.device == other.device && one.inode == other.inode && one.path == other.path;
}

}  // namespace

PtraceEngine::PtraceEngine(const EngineSettings& engineSettings)
    : settings(engineSettings),
      frequency(std::min(engineSettings.frequency, kHighestFrequency)),
      timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      stack(engineSettings.stackBytes) {
    const long period = 1'000'000'000L / frequency;
    const timespec interval{period / 1'000'000'000L, period % 1'000'000'000L};
    const itimerspec when{interval, interval};
    if (!timer || ::timerfd_settime(timer.get(), 0, &when, nullptr) != 0) {
        throw Failure(ExitCode::Failed,
                      "cannot start a timer: " + std::string(std::strerror(errno)));
    }
}

PtraceEngine::~PtraceEngine() {
    release();
}

void PtraceEngine::attach(pid_t process, EventSink& sink) {
    const auto processes =
        settings.children ? processesBelow(process) : std::vector<pid_t>{process};
    for (const pid_t each : processes) {
        for (const pid_t thread : threadsOf(each)) {
            if (!seize(each, thread) && errno != ESRCH) {
                const std::string reason = std::strerror(errno);
                throw Failure(ExitCode::Failed,
                              "the system does not let this user trace process " +
                                  std::to_string(each) + " (ptrace: " + reason +
                                  "); its own user or root may, unless a debugger does already or "
                                  "kernel.yama.ptrace_scope forbids it");
            }
        }
        introduce(each, sink);
    }
}

bool PtraceEngine::seize(pid_t process, pid_t thread) {
    const unsigned long options = kOptions | (settings.children ? kOptionsForChildren : 0);
    if (threads.count(thread) == 0 && ::ptrace(PTRACE_SEIZE, thread, nullptr, options) != 0) {
        return false;
    }
    threads.emplace(thread, Thread{process, cpuOf(process, thread), now(), false});
    return true;
}

void PtraceEngine::introduce(pid_t process, EventSink& sink) {
    mapped.erase(process);
    tellNews(process, sink);
}

/// Libraries come and go, and threads name themselves, without a stop that would tell.
void PtraceEngine::tellNews(pid_t process, EventSink& sink) {
    const std::uint64_t begin = now();
    Mapped& known = mapped[process];
    for (const CodeMapping& mapping : codeMappingsOf(process)) {
        const auto [entry, isNew] = known.code.emplace(mapping.begin, mapping);
        if (isNew || !isSame(entry->second, mapping)) {
            entry->second = mapping;
            sink.onMapping(mapping);
        }
    }
    for (const pid_t thread : threadsOf(process)) {
        sink.onName(process, thread, nameOf(process, thread));
    }
    const std::uint64_t end = now();
    known.due = end + kRestAfterNews * (end - begin);
}

void PtraceEngine::deliver(EventSink& sink) {
    std::uint64_t expirations = 0;
    handleStops(sink);
    if (::read(timer.get(), &expirations, sizeof expirations) == sizeof expirations) {
        askThreads();
        handleStops(sink);
    }
}

void PtraceEngine::askThreads() {
    for (auto& [id, thread] : threads) {
        const std::uint64_t cpu = cpuOf(thread.process, id);
        // To be stopped and to go on takes a waiting thread some time as well.
        const std::uint64_t slack = settings.waits ? kStopCost : 0;
        const bool hasRun = cpu > thread.cpu + slack;
        if (!thread.asked && hasRun != settings.waits) {
            thread.asked = ::ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr) == 0;
        } else if (settings.waits && hasRun) {
            thread.cpu = cpu;
            thread.time = now();
        }
    }
}

void PtraceEngine::handleStops(EventSink& sink) {
    siginfo_t stop{};
    while (::waitid(P_ALL, 0, &stop, WSTOPPED | WEXITED | WNOHANG | WNOWAIT | __WALL) == 0 &&
           stop.si_pid != 0 && handleStop(stop, sink)) {
        stop = {};
    }
}

/// @return false when there is nothing to be done about it here
bool PtraceEngine::handleStop(const siginfo_t& stop, EventSink& sink) {
    const pid_t id = stop.si_pid;
    if (stop.si_code == CLD_EXITED || stop.si_code == CLD_KILLED || stop.si_code == CLD_DUMPED) {
        const auto known = threads.find(id);
        const bool isOurs = known == threads.end() || known->second.process == id;
        forget(id, sink);
        // Whoever has started the target wants to see its end; what it left to us nobody else sees.
        siginfo_t whose{};
        if (isOurs &&
            ::waitid(P_PID, static_cast<id_t>(id), &whose, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            whose.si_pid == id) {
            return false;
        }
        (void)::waitpid(id, nullptr, WNOHANG | __WALL);
        return true;
    }
    int status = 0;
    if (::waitpid(id, &status, WNOHANG | __WALL) == id && WIFSTOPPED(status)) {
        handleEvent(id, status, sink);
    }
    return true;
}

void PtraceEngine::handleEvent(pid_t thread, int status, EventSink& sink) {
    const int event = status >> 16;
    const int signal = WSTOPSIG(status);
    auto known = threads.find(thread);
    if (known == threads.end()) {  // it has just begun
        const pid_t process = processOfThread(thread);
        const pid_t parent = process == thread ? parentOf(process) : process;
        sink.onStart(process, thread, parent);
        known = threads.emplace(thread, Thread{process, 0, now(), false}).first;
        if (process == thread) {
            introduce(process, sink);
        }
    }
    int delivered = 0;
    if (event == PTRACE_EVENT_EXEC) {
        sink.onExec(known->second.process);
        introduce(known->second.process, sink);
    } else if (event == PTRACE_EVENT_STOP && signal != SIGTRAP) {
        // The whole process is stopped, by a shell for instance, and stays so.
        (void)::ptrace(PTRACE_LISTEN, thread, nullptr, nullptr);
        known->second.asked = false;
        return;
    } else if (event == PTRACE_EVENT_STOP && known->second.asked) {
        look(thread, known->second, sink);
        return;
    } else if (event == 0) {
        delivered = signal;  // a signal of its own, which it gets
    }
    (void)::ptrace(PTRACE_CONT, thread, nullptr, delivered);  // fails when it was killed meanwhile
}

void PtraceEngine::look(pid_t thread, Thread& state, EventSink& sink) {
    StackSample sample;
    sample.process = state.process;
    sample.thread = thread;
    sample.time = now();
    sample.registers = registersOf(thread);
    if (sample.registers) {
        const std::size_t bytes = readStack(state.process, sample.registers->stackPointer(), stack);
        sample.stack = std::span(stack).first(bytes);
    }
    const std::uint64_t cpu = cpuOf(state.process, thread);
    (void)::ptrace(PTRACE_CONT, thread, nullptr, nullptr);  // fails when it was killed meanwhile
    state.asked = false;
    const std::uint64_t used = cpu > state.cpu ? cpu - state.cpu : 0;
    const std::uint64_t passed = sample.time - state.time;
    accounted += used;
    if (sample.time >= mapped[state.process].due) {
        tellNews(state.process, sink);
    }
    if (settings.waits) {
        sink.onTurn(state.process, thread, ThreadTurn::Waits,
                    sample.time - (passed > used ? passed - used : 0));
        sink.onSample(sample);
        sink.onTurn(state.process, thread, ThreadTurn::Runs, sample.time);
    } else {
        sample.nanoseconds = used;
        sink.onSample(sample);
    }
    state.cpu = cpu;
    state.time = sample.time;
}

void PtraceEngine::forget(pid_t thread, EventSink& sink) {
    const auto known = threads.find(thread);
    if (known == threads.end()) {
        return;
    }
    const pid_t process = known->second.process;
    threads.erase(known);
    sink.onEnd(process, thread);
    if (process == thread) {
        mapped.erase(process);
    }
}

void PtraceEngine::finish(EventSink& sink) {
    handleStops(sink);
    release();
}

/// A thread can be let go only while it is stopped.
void PtraceEngine::release() {
    constexpr std::chrono::milliseconds kPatience{500};
    for (const auto& [id, thread] : threads) {
        (void)::ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr);
    }
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!threads.empty() && std::chrono::steady_clock::now() < deadline) {
        for (auto thread = threads.begin(); thread != threads.end();) {
            int status = 0;
            siginfo_t state{};
            const pid_t id = thread->first;
            const bool known = ::waitid(P_PID, static_cast<id_t>(id), &state,
                                        WSTOPPED | WEXITED | WNOHANG | WNOWAIT | __WALL) == 0;
            if (known && state.si_pid == 0) {
                ++thread;  // it has not stopped yet
                continue;
            }
            if (known && state.si_code == CLD_TRAPPED &&
                ::waitpid(id, &status, WNOHANG | __WALL) == id && WIFSTOPPED(status)) {
                const bool ownSignal = status >> 16 == 0;
                (void)::ptrace(PTRACE_DETACH, id, nullptr, ownSignal ? WSTOPSIG(status) : 0);
            }
            thread = threads.erase(thread);
        }
    }
    threads.clear();  // the system lets go what does not stop, at our end
}

EngineReport PtraceEngine::report() const {
    EngineReport report;
    report.name = "ptrace";
    report.period = 1'000'000'000ULL / frequency;
    report.accountedNanoseconds = settings.waits ? 0 : accounted;
    report.limits.push_back("Threads are stopped for each look (ptrace), " +
                            std::to_string(frequency) +
                            " times a second at most; time in the kernel is not told apart.");
    return report;
}

}  // namespace kolvan::profiler
