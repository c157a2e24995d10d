#include "companions/profiler/engine/PtraceEngine.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/base/MonotonicTime.h"
#include "companions/profiler/engine/StackOfThread.h"
#include "companions/profiler/engine/Tasks.h"
#include "companions/profiler/engine/TraceStops.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <iterator>
#include <string>
#include <utility>

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// What else a stop may tell than that we have asked for it: ptrace(2), PTRACE_O_*.
constexpr unsigned long kOptions = PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
constexpr unsigned long kOptionsForChildren = PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;

/// Being looked at makes a thread run, too, which is no reason to look again: a thread that waits
/// is to be left alone.
constexpr std::uint64_t kLookCost = 100'000;

/// How much longer than a look takes the next one is put off at least: with thousands of threads
/// nothing else would be done.
constexpr std::uint64_t kRestForWork = 4;

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
        throw Failure(ExitCode::Failed, "cannot start a timer: " + errorText(errno));
    }
}

PtraceEngine::~PtraceEngine() {
    release();
}

void PtraceEngine::attach(pid_t process, EventSink& sink) {
    target = process;
    // Who is traced brings the threads along that he begins. So once nobody new is found, nobody
    // has been missed.
    while (seizeUnknown(sink)) {
    }
    if (threads.empty()) {
        throw Failure(ExitCode::NoTarget, "process " + std::to_string(process) + " has ended");
    }
}

/// @return whether there was anybody new
bool PtraceEngine::seizeUnknown(EventSink& sink) {
    bool found = false;
    const auto processes = settings.children ? processesBelow(target) : std::vector<pid_t>{target};
    for (const pid_t process : processes) {
        for (const pid_t thread : threadsOf(process)) {
            found = (threads.count(thread) == 0 && refused.count(thread) == 0 &&
                     seize(process, thread)) ||
                    found;
        }
        if (!news.isKnown(process)) {
            news.introduce(process, sink);
        }
    }
    return found;
}

bool PtraceEngine::seize(pid_t process, pid_t thread) {
    const unsigned long options = kOptions | (settings.children ? kOptionsForChildren : 0);
    if (::ptrace(PTRACE_SEIZE, thread, nullptr, options) != 0) {
        const int error = errno;
        // Its creator may have brought it along, which its first stop is going to tell.
        if (tracerOf(thread) != ::getpid()) {
            noteRefusal(process, thread, error);
            return false;
        }
    }
    threads.emplace(thread,
                    Thread{process, processorTimeOf(process, thread), 0, monotonicNow(), false});
    return true;
}

/// The target itself must be traced; what else cannot be is said.
void PtraceEngine::noteRefusal(pid_t process, pid_t thread, int error) {
    if (hasEnded(thread)) {
        return;  // the first thread of a process stays like that until the last one ends
    }
    if (process == target) {
        throw Failure(ExitCode::Failed, "the system does not let this user trace process " +
                                            std::to_string(process) +
                                            " (ptrace: " + errorText(error) +
                                            "); its own user or root may, unless a debugger does "
                                            "already or kernel.yama.ptrace_scope forbids it");
    }
    refused.insert(thread);
}

void PtraceEngine::deliver(EventSink& sink) {
    std::uint64_t expirations = 0;
    handleStops(sink);
    handleEnds(sink);
    if (::read(timer.get(), &expirations, sizeof expirations) == sizeof expirations) {
        const std::uint64_t begin = monotonicNow();
        if (begin < notBefore) {
            isSlow = true;
            return;
        }
        askThreads();
        handleStops(sink);
        const std::uint64_t end = monotonicNow();
        notBefore = end + kRestForWork * (end - begin);
    }
}

void PtraceEngine::askThreads() {
    for (auto& [id, thread] : threads) {
        const std::uint64_t cpu = processorTimeOf(thread.process, id);
        const bool hasRun = cpu > thread.cpu + kLookCost;
        const bool hasRunRecently = cpu > std::exchange(thread.seen, cpu) + kLookCost;
        if (!thread.asked && (settings.waits ? !hasRunRecently : hasRun)) {
            thread.asked = ::ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr) == 0;
        }
    }
}

void PtraceEngine::handleStops(EventSink& sink) {
    siginfo_t stop{};
    while (nextStop(stop)) {
        handleEvent(stop.si_pid, eventOf(stop), signalOf(stop), sink);
    }
}

void PtraceEngine::handleEvent(pid_t thread, int event, int signal, EventSink& sink) {
    if (!welcome(thread, sink)) {
        return;
    }
    // It is traced already, and must not be forgotten when everybody is let go.
    if (const pid_t child = childBy(thread, event); child != 0) {
        (void)welcome(child, sink);
    }
    Thread& state = threads.at(thread);
    int delivered = 0;
    if (event == PTRACE_EVENT_EXEC) {
        handleExec(thread, sink);
    } else if (event == PTRACE_EVENT_STOP && signal != SIGTRAP) {
        // The whole process is stopped, by a shell for instance, and stays so.
        (void)::ptrace(PTRACE_LISTEN, thread, nullptr, nullptr);
        state.asked = false;
        return;
    } else if (event == PTRACE_EVENT_STOP && state.asked) {
        look(thread, state, sink);
        return;
    } else if (event == 0) {
        delivered = signal;  // a signal of its own, which it gets
    }
    // Whatever it has stopped for, it does not stop for our question as well.
    threads.at(thread).asked = false;
    (void)::ptrace(PTRACE_CONT, thread, nullptr, delivered);  // fails when it was killed meanwhile
}

/// Takes in a thread that has just begun. @return false when it is none of ours, and was let go
bool PtraceEngine::welcome(pid_t thread, EventSink& sink) {
    if (threads.count(thread) > 0) {
        return true;
    }
    const pid_t process = processOfThread(thread);
    if (process == 0 || (process != target && !settings.children)) {
        (void)::ptrace(PTRACE_DETACH, thread, nullptr, nullptr);  // fails when it was killed
        return false;
    }
    threads.emplace(thread, Thread{process, 0, 0, monotonicNow(), false});
    ++threadsBegun;
    sink.onStart(process, thread, process == thread ? parentOf(process) : process);
    if (process == thread) {
        news.introduce(process, sink);
    }
    return true;
}

/// The process has one thread now, with the number of the first; whatever that was asked for, or
/// had used, was another thread's.
void PtraceEngine::handleExec(pid_t process, EventSink& sink) {
    std::erase_if(threads, [&](const auto& entry) {
        return entry.second.process == process && entry.first != process;
    });
    threads[process] = Thread{process, processorTimeOf(process, process), 0, monotonicNow(), false};
    sink.onExec(process);
    news.introduce(process, sink);
}

void PtraceEngine::look(pid_t thread, Thread& state, EventSink& sink) {
    StackSample sample;
    sample.process = state.process;
    sample.thread = thread;
    sample.time = monotonicNow();
    sample.registers = registersOfStopped(thread);
    if (sample.registers) {
        const std::size_t bytes = readStack(state.process, sample.registers->stackPointer(), stack);
        sample.stack = std::span(stack).first(bytes);
    }
    const std::uint64_t cpu = processorTimeOf(state.process, thread);
    (void)::ptrace(PTRACE_CONT, thread, nullptr, nullptr);  // fails when it was killed meanwhile
    state.asked = false;
    const std::uint64_t used = cpu > state.cpu ? cpu - state.cpu : 0;
    const std::uint64_t passed = sample.time - state.time;
    accounted += used;
    news.refresh(state.process, sample.time, sink);
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

void PtraceEngine::handleEnds(EventSink& sink) {
    siginfo_t end{};
    while (findEnd(0, end)) {
        if (!isEnd(end)) {
            handleStops(sink);
        } else if (!handleEnd(end.si_pid, sink)) {
            // What stays is what a question about any is answered with from now on.
            handleOtherEnds(sink);
            return;
        }
    }
}

void PtraceEngine::handleOtherEnds(EventSink& sink) {
    std::vector<pid_t> ended;
    siginfo_t end{};
    for (const auto& [id, thread] : threads) {
        if (findEnd(id, end) && isEnd(end)) {
            ended.push_back(id);
        }
    }
    for (const pid_t id : ended) {
        (void)handleEnd(id, sink);  // the one that stays is not among them any more
    }
}

/// @return false for a command that this process has started: whoever did wants to see its end
bool PtraceEngine::handleEnd(pid_t id, EventSink& sink) {
    const auto known = threads.find(id);
    if (known != threads.end()) {
        const Thread thread = known->second;
        accountRest(id, thread);
        threads.erase(known);
        sink.onEnd(thread.process, id);
        if (thread.process == id) {
            news.forget(id);
        }
    }
    if (id == target && parentOf(id) == ::getpid()) {
        return false;
    }
    // Only then does its own parent hear of it. What it left to us, nobody else sees.
    (void)::waitpid(id, nullptr, WNOHANG | __WALL);
    return true;
}

/// Time that a thread has used since the last look is time that no sample stands for.
void PtraceEngine::accountRest(pid_t thread, const Thread& state) {
    const std::uint64_t cpu = processorTimeOf(state.process, thread);
    accounted += cpu > state.cpu ? cpu - state.cpu : 0;
}

void PtraceEngine::finish(EventSink& sink) {
    handleStops(sink);
    handleEnds(sink);
    for (const auto& [id, thread] : threads) {
        accountRest(id, thread);
    }
    release();
}

/// A thread can be let go only while it is stopped.
void PtraceEngine::release() {
    constexpr std::chrono::milliseconds kPatience{1000};  // since the last one was let go
    constexpr timespec kLookPeriod{0, 1'000'000};
    for (const auto& [id, thread] : threads) {
        (void)::ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr);  // fails when it has ended
    }
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!threads.empty() && std::chrono::steady_clock::now() < deadline) {
        siginfo_t stop{};
        while (nextStop(stop)) {
            letGo(stop.si_pid, eventOf(stop), signalOf(stop));
            deadline = std::chrono::steady_clock::now() + kPatience;
        }
        dropEnded();
        if (!threads.empty()) {
            (void)::nanosleep(&kLookPeriod, nullptr);
        }
    }
    threads.clear();  // the system lets go what does not stop, at our end
}

void PtraceEngine::letGo(pid_t thread, int event, int signal) {
    if (const pid_t child = childBy(thread, event); child != 0) {
        threads.emplace(child, Thread());  // is to be let go as well
    }
    (void)::ptrace(PTRACE_DETACH, thread, nullptr, event == 0 ? signal : 0);  // or it was killed
    threads.erase(thread);
}

/// Forgets those that have ended, or are not traced any more.
void PtraceEngine::dropEnded() {
    for (auto thread = threads.begin(); thread != threads.end();) {
        const pid_t id = thread->first;
        siginfo_t end{};
        const bool traced = tracerOf(id) == ::getpid();
        const bool ended = findEnd(id, end) && isEnd(end);
        if (ended && !(id == target && parentOf(id) == ::getpid())) {
            (void)::waitpid(id, nullptr, WNOHANG | __WALL);
        }
        thread = ended || !traced ? threads.erase(thread) : std::next(thread);
    }
}

EngineReport PtraceEngine::report() const {
    EngineReport report;
    report.name = "ptrace";
    report.period = 1'000'000'000ULL / frequency;
    report.accountedNanoseconds = settings.waits ? 0 : accounted;
    report.threadsBegun = threadsBegun;
    report.limits.push_back("Threads are stopped for each look (ptrace), " +
                            std::to_string(frequency) +
                            " times a second at most; time in the kernel is not told apart, and "
                            "a call that waits may be interrupted (EINTR).");
    if (isSlow) {
        report.limits.emplace_back("Looks are rarer than that: there are many threads.");
    }
    if (!refused.empty()) {
        report.limits.push_back(std::to_string(refused.size()) +
                                " threads of other processes are not looked at: this user may not "
                                "trace them.");
    }
    return report;
}

}  // namespace kolvan::profiler
