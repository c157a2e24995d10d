#include "companions/profiler/sampling/ProfileSession.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/PerfEngine.h"
#include "companions/profiler/engine/PtraceEngine.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kolvan::profiler {

namespace {

/// With fewer periods than these, a part of one is a large share.
constexpr std::uint64_t kManyPeriods = 100;

}  // namespace

ProfileSession::ProfileSession(EngineChoice choice, const EngineSettings& settings, pid_t process,
                               std::uint64_t beginTime, bool sourceLines)
    : recorder(settings.waits ? Profile::Kind::Wait : Profile::Kind::Cpu, beginTime, sourceLines) {
    attach(choice, settings, process);
    const EngineReport report = engine->report();
    recorder.describeEngine(report.name, report.period);
}

void ProfileSession::attach(EngineChoice choice, const EngineSettings& settings, pid_t process) {
    if (choice != EngineChoice::Ptrace) {
        try {
            engine = std::make_unique<PerfEngine>(settings);
            return engine->attach(process, recorder);
        } catch (const Failure& failure) {
            if (choice == EngineChoice::Perf) {
                throw;
            }
            refusals.push_back(std::string("The better engine is not to be had: ") +
                               failure.what() + ".");
        }
    }
    engine = std::make_unique<PtraceEngine>(settings);
    engine->attach(process, recorder);
}

bool ProfileSession::listenToTurns(ProfileRecorder::TurnListener listener) {
    const bool seesAll = engine->report().seesTurns;
    if (seesAll) {
        recorder.listenToTurns(std::move(listener));
    }
    return seesAll;
}

void ProfileSession::finish() {
    engine->finish(recorder);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    recorder.finish(static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
}

const Profile& ProfileSession::profile() {
    return recorder.named();
}

Coverage ProfileSession::coverage() {
    Coverage coverage = recorder.coverage();
    const EngineReport report = engine->report();
    coverage.accountedNanoseconds = report.accountedNanoseconds;
    coverage.lost = report.lost;
    coverage.limits = refusals;
    coverage.limits.insert(coverage.limits.end(), report.limits.begin(), report.limits.end());
    const std::uint64_t missing =
        coverage.accountedNanoseconds -
        std::min(coverage.sampledNanoseconds, coverage.accountedNanoseconds);
    if (coverage.lost == 0 && missing > coverage.accountedNanoseconds / 10 &&
        coverage.accountedNanoseconds > kManyPeriods * report.period) {
        // A new thread's first sample comes when it has run for a whole period.
        const bool isOfShortThreads = report.threadsBegun * report.period > missing / 2;
        coverage.limits.emplace_back(
            isOfShortThreads
                ? "Many threads ran for less than the time between two samples and have none; a "
                  "higher --frequency sees more of them."
                : "Some processor time has no samples: in a virtual machine no timer expires while "
                  "it waits for a processor.");
    }
    return coverage;
}

}  // namespace kolvan::profiler
