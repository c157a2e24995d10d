#include "companions/profiler/Collection.h"

#include "companions/profiler/CollectionEnd.h"
#include "companions/profiler/Events.h"
#include "companions/profiler/Progress.h"
#include "companions/profiler/Target.h"
#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/control/ControlServer.h"
#include "companions/profiler/output/OutputFile.h"
#include "companions/profiler/output/Pprof.h"
#include "companions/profiler/output/ProfileSummary.h"
#include "companions/profiler/output/ResultDirectory.h"
#include "companions/profiler/output/Summary.h"
#include "companions/profiler/output/TextEscape.h"
#include "companions/profiler/output/TraceWriter.h"
#include "companions/profiler/sampling/ProfileSession.h"
#include "companions/profiler/timeline/Measurement.h"
#include "companions/profiler/timeline/ThreadSlices.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr std::chrono::milliseconds kFeedbackPatience{500};
constexpr std::chrono::seconds kProgressPeriod{1};
constexpr unsigned kTimelineFrequency = 20;  // beside a profile

/// How many times as long as the look of the timeline before it the next one is put off at least,
/// beside a profile: with thousands of threads there would be no time for their samples.
constexpr int kRestAfterLook = 4;

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
          signals(receiveSignals()),
          directory(options.resultDirectory),
          control(directory.descriptor()),
          target(options),
          progress(feedback) {}

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
        tellStart();
        if (profile) {
            drawTurns();
        }
        const auto period = std::chrono::nanoseconds(1'000'000'000) / timelineFrequency();
        ticks = startTimer(released + period, period);
        if (options.duration) {
            duration = startTimer(released + *options.duration, std::chrono::nanoseconds(0));
        }
        sample();
        while (end == CollectionEnd::None) {
            waitForEvents();
            readSignals();
            deliverSamples();
            control.handle([this](const std::string& command) { return obey(command); });
            readTicks();
            if (duration && expirations(duration) > 0) {
                endAs(CollectionEnd::Duration);
            }
            if (target.commandHasEnded()) {
                endAs(CollectionEnd::TargetEnded);
            }
        }
    }

    void tellStart() {
        std::vector<Feedback::Attribute> attributes = {
            {"state", "started"},
            {"pid", std::to_string(target.pid())},
            {"target", target.name()},
            {"frequency", std::to_string(options.frequency)},
            {"trace", tracePath()}};
        if (profile) {
            attributes.emplace_back("engine", profile->profile().engine);
        }
        feedback.send("collection", attributes, kFeedbackPatience);
        if (profile) {
            progress.tellLimits(profile->limits(), kFeedbackPatience);
        }
    }

    void deliverSamples() {
        if (profile) {
            profile->deliver();
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
            throw Failure(ExitCode::Failed, "cannot wait for events: " + errorText(errno));
        }
    }

    void readSignals() {
        signalfd_siginfo signal{};
        while (::read(signals.get(), &signal, sizeof signal) == sizeof signal) {
            if (signal.ssi_signo == SIGINT) {
                endAs(CollectionEnd::Interrupted);
            } else if (signal.ssi_signo != SIGCHLD) {
                endAs(CollectionEnd::Terminated);
            }
        }
    }

    void readTicks() {
        const std::uint64_t passed = expirations(ticks);
        if (passed == 0) {
            return;
        }
        missedTicks += passed - 1;
        auto now = Clock::now();
        if (now < nextLook) {
            ++missedTicks;
        } else {
            sample();
            const auto before = std::exchange(now, Clock::now());
            nextLook = now + (profile ? kRestAfterLook * (now - before) : Clock::duration());
        }
        if (now - lastProgress >= kProgressPeriod) {
            lastProgress = now;
            timeline->trace.flush();
            control.dropSilent();
            target.lookForChildren();
            progress.tell(seconds(), timeline->measurement.figures(),
                          profile ? &*profile : nullptr);
        }
    }

    void sample() {
        const auto reading = target.read([this] { deliverSamples(); });
        if (reading) {
            timeline->measurement.add(*reading, microseconds());
        } else {
            endAs(CollectionEnd::TargetEnded);
        }
    }

    std::optional<std::string> obey(const std::string& command) {
        if (command == "stop" || command == "cancel") {
            endAs(command == "stop" ? CollectionEnd::Stopped : CollectionEnd::Cancelled);
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
    void endAs(CollectionEnd reason) { end = end == CollectionEnd::None ? reason : end; }

    void finishTrace() {
        totalSeconds = seconds();
        progress.clear();
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
            const Coverage coverage = profile->coverage();
            writePprof(profile->profile(), coverage, path);
            summary.profile = summarize(profile->profile(), coverage, path);
            progress.tellLimits(coverage.limits, kFeedbackPatience);
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

    double seconds() const { return std::chrono::duration<double>(Clock::now() - begin).count(); }

    std::int64_t microseconds() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
    }

    const Options& options;
    Feedback& feedback;
    FileDescriptor signals;  // first: whoever ends us when there is a directory, gets it whole
    ResultDirectory directory;
    ControlServer control;
    Target target;
    Progress progress;
    std::optional<Timeline> timeline;  // once it is known that the target runs
    std::optional<ProfileSession> profile;
    FileDescriptor ticks;
    FileDescriptor duration;     // none without a time limit
    Clock::time_point begin;     // of all times that are told
    Clock::time_point released;  // when everything is watched, and the target runs
    Clock::time_point lastProgress;
    Clock::time_point nextLook;  // of the timeline, at the earliest
    std::uint64_t missedTicks = 0;
    double totalSeconds = 0;
    CollectionEnd end = CollectionEnd::None;
};

}  // namespace

ExitCode runCollection(const Options& options, Feedback& feedback) {
    return Collection(options, feedback).run();
}

}  // namespace kolvan::profiler
