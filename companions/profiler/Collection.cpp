#include "companions/profiler/Collection.h"

#include "companions/demangle/ShortName.h"
#include "companions/profiler/StartedCommand.h"
#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/control/ControlServer.h"
#include "companions/profiler/engine/Tasks.h"
#include "companions/profiler/output/HotFunctions.h"
#include "companions/profiler/output/OutputFile.h"
#include "companions/profiler/output/Pprof.h"
#include "companions/profiler/output/ProfileSummary.h"
#include "companions/profiler/output/ResultDirectory.h"
#include "companions/profiler/output/Summary.h"
#include "companions/profiler/output/TerminalProgress.h"
#include "companions/profiler/output/TextEscape.h"
#include "companions/profiler/output/TraceWriter.h"
#include "companions/profiler/sampling/ProfileSession.h"
#include "companions/profiler/timeline/Measurement.h"
#include "companions/profiler/timeline/ProcessProbe.h"
#include "companions/profiler/timeline/ThreadSlices.h"
#include "companions/profiler/timeline/TreeCpu.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

using Clock = std::chrono::steady_clock;  // the clock that the timers run on

constexpr std::chrono::milliseconds kCommandGrace{1000};
constexpr std::chrono::milliseconds kFeedbackPatience{500};
constexpr std::chrono::seconds kProgressPeriod{1};
constexpr unsigned kTimelineFrequency = 20;  // beside a profile
constexpr std::size_t kLongestTarget = 300;
constexpr std::array<std::string_view, 5> kTopNames{"top1", "top2", "top3", "top4", "top5"};

enum class End { None, Duration, TargetEnded, Stopped, Cancelled, Terminated, Interrupted };

/// One way to end in words: for programs and for people.
struct EndWords {
    const char* word;
    const char* text;
};

EndWords wordsOf(End end) {
    switch (end) {
        case End::Duration:
            return {"duration", "the duration is over"};
        case End::TargetEnded:
            return {"target-ended", "the target has ended"};
        case End::Stopped:
            return {"stopped", "stopped by a command"};
        case End::Cancelled:
            return {"cancelled", "cancelled by a command"};
        case End::Terminated:
            return {"terminated", "terminated by a signal"};
        case End::Interrupted:
            return {"interrupted", "interrupted"};
        case End::None:
            break;
    }
    return {"running", "running"};
}

ExitCode exitCodeOf(End end) {
    const bool wanted = end == End::Duration || end == End::TargetEnded || end == End::Stopped;
    return wanted ? ExitCode::Whole : ExitCode::Cancelled;
}

[[noreturn]] void failSystem(const std::string& what) {
    throw Failure(ExitCode::Failed, what + ": " + errorText(errno));
}

timespec toTimespec(std::chrono::nanoseconds time) {
    return {time.count() / 1'000'000'000, time.count() % 1'000'000'000};
}

/// A timer that first expires at `first`, then every `period` (never again when that is 0). Its
/// deadlines are absolute, so that late wake-ups do not add up.
FileDescriptor startTimer(Clock::time_point first, std::chrono::nanoseconds period) {
    FileDescriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    const itimerspec when{toTimespec(period), toTimespec(first.time_since_epoch())};
    if (!timer || ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
        failSystem("cannot start a timer");
    }
    return timer;
}

/// Number of times the timer has expired since the last call.
std::uint64_t expirations(const FileDescriptor& timer) {
    std::uint64_t count = 0;
    return ::read(timer.get(), &count, sizeof count) == sizeof count ? count : 0;
}

/// Turns the signals that end a collection, and SIGCHLD, into something to poll for.
FileDescriptor receiveSignals() {
    // Whoever starts programs in the background or ignores its own children may have left these
    // ignored, and what is ignored does not arrive.
    for (const int number : {SIGINT, SIGTERM, SIGCHLD}) {
        (void)std::signal(number, SIG_DFL);  // fails for unknown numbers only
    }
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        ::sigaddset(&signals, number);
    }
    if (const int error = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr); error != 0) {
        errno = error;
        failSystem("cannot block signals");
    }
    FileDescriptor descriptor(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!descriptor) {
        failSystem("cannot receive signals");
    }
    return descriptor;
}

std::string shortened(std::string text) {
    if (text.size() > kLongestTarget) {
        text.resize(kLongestTarget);
        text += "...";
    }
    return text;
}

std::string joined(const std::vector<std::string>& arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += (text.empty() ? "" : " ") + argument;
    }
    return text;
}

/// What is measured: a running process or a command of our own.
class Target {
public:
    explicit Target(const Options& options)
        : command(options.command.empty() ? nullptr
                                          : std::make_unique<StartedCommand>(options.command)),
          id(command ? command->id() : options.pid.value()),
          commandLine(shortened(command ? joined(options.command) : commandLineOf(id))),
          probe(id),
          tree(id) {
        if (!command && !probe.read()) {
            throw Failure(ExitCode::NoTarget,
                          "process " + std::to_string(id) + " has already ended");
        }
    }

    pid_t pid() const noexcept { return id; }
    const std::string& name() const noexcept { return commandLine; }

    /// Lets a command begin, which waits up to here.
    void release() {
        if (command) {
            command->release();
        }
    }

    /// The process, with the CPU time of what it has started, too.
    std::optional<ProcessReading> read() {
        auto reading = probe.read();
        if (reading) {
            reading->cpuNanoseconds = tree.nanoseconds();
        }
        return reading;
    }

    void lookForChildren() { tree.lookForChildren(); }

    /// All CPU time of a command that has ended but was not waited for yet.
    std::optional<std::uint64_t> finalCpuNanoseconds() {
        return commandHasEnded() ? std::optional(tree.nanoseconds()) : std::nullopt;
    }

    bool commandHasEnded() const { return command && command->hasEnded(); }

    /// How the command ended; empty when the target is none of ours.
    std::string endCommand() const { return command ? command->terminate(kCommandGrace) : ""; }

private:
    const std::unique_ptr<StartedCommand> command;
    const pid_t id;
    const std::string commandLine;
    ProcessProbe probe;
    TreeCpu tree;
};

/// The engine's part of the options; none for a timeline alone.
std::optional<EngineSettings> engineSettings(const Options& options) {
    if (options.profile == Options::Profile::None) {
        return std::nullopt;
    }
    EngineSettings settings;
    settings.waits = options.profile == Options::Profile::Wait;
    settings.frequency = options.frequency;
    settings.children = options.children;
    return settings;
}

/// What is drawn into the trace.
struct Timeline {
    Timeline(const std::string& path, pid_t process)
        : trace(path, process), measurement(trace), slices(trace) {}

    TraceWriter trace;
    Measurement measurement;
    ThreadSlices slices;
};

class Collection {
public:
    Collection(const Options& collectionOptions, Feedback& collectionFeedback)
        : options(collectionOptions),
          feedback(collectionFeedback),
          directory(options.resultDirectory),
          control(directory.descriptor()),
          signals(receiveSignals()),
          target(options) {}

    ExitCode run() {
        try {
            beginWatching();
            timeline.emplace(tracePath(), target.pid());
            measure();
            finishTrace();
            return report();
        } catch (const Failure& failure) {
            control.answerAll(std::string("error the collection failed: ") + failure.what());
            throw;
        }
    }

private:
    /// Nothing is written before the command is known to run.
    void beginWatching() {
        begin = Clock::now();
        if (const auto settings = engineSettings(options)) {
            profile.emplace(options.engine, *settings, target.pid(), nanoseconds(begin),
                            options.inlined);
        }
        target.release();
        released = Clock::now();
    }

    void measure() {
        timeline->trace.nameProcess(target.name());
        timeline->trace.flush();  // whoever finds half of a trace knows what it is of
        feedback.send("collection",
                      {{"state", "started"},
                       {"pid", std::to_string(target.pid())},
                       {"target", target.name()},
                       {"frequency", std::to_string(options.frequency)},
                       {"trace", tracePath()}},
                      kFeedbackPatience);
        if (profile) {
            drawTurns();
        }
        const auto period = std::chrono::nanoseconds(1'000'000'000) / timelineFrequency();
        ticks = startTimer(released + period, period);
        if (options.duration) {
            duration = startTimer(released + *options.duration, std::chrono::nanoseconds(0));
        }
        sample();
        while (end == End::None) {
            waitForEvents();
            readSignals();
            if (profile) {
                profile->deliver();
            }
            control.handle([this](const std::string& command) { return obey(command); });
            readTicks();
            if (duration && expirations(duration) > 0) {
                endAs(End::Duration);
            }
            if (target.commandHasEnded()) {
                endAs(End::TargetEnded);
            }
        }
    }

    void drawTurns() {
        const bool seesAll =
            profile->listenToTurns([this](pid_t process, pid_t thread,
                                          std::optional<ThreadTurn> turn, std::uint64_t time) {
                if (process == target.pid() && time > nanoseconds(begin)) {
                    drawTurn(thread, turn,
                             static_cast<std::int64_t>((time - nanoseconds(begin)) / 1000));
                }
            });
        if (seesAll) {
            timeline->measurement.leaveStates();
        }
    }

    void drawTurn(pid_t thread, std::optional<ThreadTurn> turn, std::int64_t time) {
        if (turn) {
            timeline->slices.change(thread, wordOf(*turn), time);
        } else {
            timeline->slices.end(thread, time);
        }
    }

    static std::string_view wordOf(ThreadTurn turn) {
        return turn == ThreadTurn::Runs    ? "running"
               : turn == ThreadTurn::Waits ? "sleeping"
                                           : "runnable";
    }

    void waitForEvents() {
        std::vector<pollfd> entries = {
            {signals.get(), POLLIN, 0}, {ticks.get(), POLLIN, 0}, {duration.get(), POLLIN, 0}};
        if (profile) {
            entries.push_back({profile->descriptor(), POLLIN, 0});
        }
        control.addPollEntries(entries);
        if (::poll(entries.data(), entries.size(), -1) < 0 && errno != EINTR) {
            failSystem("cannot wait for events");
        }
    }

    void readSignals() {
        signalfd_siginfo signal{};
        while (::read(signals.get(), &signal, sizeof signal) == sizeof signal) {
            if (signal.ssi_signo == SIGINT) {
                endAs(End::Interrupted);
            } else if (signal.ssi_signo != SIGCHLD) {
                endAs(End::Terminated);
            }
        }
    }

    void readTicks() {
        const std::uint64_t passed = expirations(ticks);
        if (passed == 0) {
            return;
        }
        missedTicks += passed - 1;
        sample();
        const auto now = Clock::now();
        if (now - lastProgress >= kProgressPeriod) {
            lastProgress = now;
            timeline->trace.flush();
            control.dropSilent();
            target.lookForChildren();
            sendProgress();
        }
    }

    void sample() {
        const auto reading = target.read();
        if (reading) {
            timeline->measurement.add(*reading, microseconds());
        } else {
            endAs(End::TargetEnded);
        }
    }

    void sendProgress() {
        const Figures& figures = timeline->measurement.figures();
        std::vector<Feedback::Attribute> attributes = {
            {"elapsed", decimalText(seconds(), 1)},
            {"samples", std::to_string(figures.samples)},
            {"threads", std::to_string(figures.threadsNow)},
            {"cpu", decimalText(figures.cpuNow, 1)},
            {"rss", std::to_string(figures.residentNow)}};
        std::string line =
            decimalText(seconds(), 0) + " s  CPU " + decimalText(figures.cpuNow, 0) + " %";
        if (profile) {
            addProfile(attributes, line);
        }
        feedback.send("progress", attributes);
        terminal.show(line);
    }

    void addProfile(std::vector<Feedback::Attribute>& attributes, std::string& line) {
        constexpr std::size_t kTop = 5;
        const Coverage coverage = profile->coverage();
        attributes.insert(attributes.end(),
                          {{"stacks", std::to_string(coverage.samples)},
                           {"sampled", decimalText(toSeconds(coverage.sampledNanoseconds), 2)},
                           {"lost", std::to_string(coverage.lost)}});
        line += "  " + std::to_string(coverage.samples) + " samples";
        const HotFunctions hot = findHotFunctions(profile->profile(), kTop, 0);
        for (std::size_t i = 0; i < hot.functions.size(); ++i) {
            const double share = shareOf(hot.functions[i].self, hot.nanoseconds) * 100;
            attributes.emplace_back(kTopNames.at(i),
                                    decimalText(share, 1) + " % " + hot.functions[i].name);
            if (share >= 1) {
                line += "  " + decimalText(share, 0) + " % " + shortName(hot.functions[i].name);
            }
        }
    }

    std::optional<std::string> obey(const std::string& command) {
        if (command == "stop" || command == "cancel") {
            endAs(command == "stop" ? End::Stopped : End::Cancelled);
            return std::nullopt;
        }
        if (command != "status") {
            return "error unknown command";
        }
        const Figures& figures = timeline->measurement.figures();
        return "ok collecting for " + decimalText(seconds(), 1) + " s, samples " +
               std::to_string(figures.samples) + ", threads " + std::to_string(figures.threadsNow) +
               ", CPU " + decimalText(figures.cpuNow, 1) + " %, average " +
               decimalText(figures.cpuAverage, 1) + " %";
    }

    /// The first reason counts.
    void endAs(End reason) { end = end == End::None ? reason : end; }

    void finishTrace() {
        totalSeconds = seconds();
        terminal.clear();
        if (profile) {
            profile->finish();
        }
        if (const auto cpu = target.finalCpuNanoseconds()) {
            timeline->measurement.closeCpu(*cpu, microseconds());
        }
        timeline->measurement.finish(microseconds());
        timeline->slices.finish(microseconds());
        timeline->trace.finish("{\"target\":" + jsonString(target.name()) +
                               ",\"reason\":" + jsonString(wordsOf(end).word) + ",\"samples\":" +
                               std::to_string(timeline->measurement.figures().samples) +
                               ",\"missedTicks\":" + std::to_string(missedTicks) + "}");
    }

    ExitCode report() {
        Summary summary;
        summary.target = target.name();
        summary.pid = target.pid();
        summary.reason = wordsOf(end).word;
        summary.reasonText = wordsOf(end).text;
        summary.targetEnding = target.endCommand();
        summary.frequency = timelineFrequency();
        summary.seconds = totalSeconds;
        summary.missedTicks = missedTicks;
        summary.figures = timeline->measurement.figures();
        summary.tracePath = tracePath();
        if (profile) {
            const std::string path = directory.dataFile("profile.pb.gz");
            writePprof(profile->profile(), profile->coverage(), path);
            summary.profile = summarize(profile->profile(), profile->coverage(), path);
        }
        writeTextFile(directory.dataFile("summary.json"), summaryJson(summary));
        feedback.send("collection",
                      {{"state", "finished"},
                       {"reason", summary.reason},
                       {"elapsed", decimalText(summary.seconds, 3)},
                       {"samples", std::to_string(summary.figures.samples)},
                       {"missed", std::to_string(summary.missedTicks)},
                       {"cpu", decimalText(summary.figures.cpuAverage, 1)},
                       {"trace", summary.tracePath}},
                      kFeedbackPatience);
        control.answerAll("ok collection " + summary.reason + ", samples " +
                          std::to_string(summary.figures.samples) + ", trace " + summary.tracePath);
        // A reader of our output that went away makes no collection worse.
        std::cout << summaryText(summary) << std::flush;
        return exitCodeOf(end);
    }

    std::string tracePath() const { return directory.dataFile(options.name + ".trace.json"); }

    unsigned timelineFrequency() const {
        return options.profile == Options::Profile::None ? options.frequency : kTimelineFrequency;
    }

    static std::uint64_t nanoseconds(Clock::time_point time) {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
    }

    static double toSeconds(std::uint64_t nanoseconds) {
        return static_cast<double>(nanoseconds) / 1e9;
    }

    double seconds() const { return std::chrono::duration<double>(Clock::now() - begin).count(); }

    std::int64_t microseconds() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
    }

    const Options& options;
    Feedback& feedback;
    ResultDirectory directory;
    ControlServer control;
    FileDescriptor signals;
    Target target;
    TerminalProgress terminal;
    std::optional<Timeline> timeline;  // once it is known that the target runs
    std::optional<ProfileSession> profile;
    FileDescriptor ticks;
    FileDescriptor duration;     // none without a time limit
    Clock::time_point begin;     // of all times that are told
    Clock::time_point released;  // when everything is watched, and the target runs
    Clock::time_point lastProgress;
    std::uint64_t missedTicks = 0;
    double totalSeconds = 0;
    End end = End::None;
};

}  // namespace

ExitCode runCollection(const Options& options, Feedback& feedback) {
    return Collection(options, feedback).run();
}

}  // namespace kolvan::profiler
