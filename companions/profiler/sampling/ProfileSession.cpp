#include "companions/profiler/sampling/ProfileSession.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/PerfEngine.h"
#include "companions/profiler/engine/PtraceEngine.h"
#include "companions/profiler/sampling/MissingTime.h"

#include <chrono>
#include <utility>

namespace kolvan::profiler {

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

std::vector<std::string> ProfileSession::limits() const {
    return limitsWith(engine->report());
}

std::vector<std::string> ProfileSession::limitsWith(const EngineReport& report) const {
    std::vector<std::string> all = refusals;
    all.insert(all.end(), report.limits.begin(), report.limits.end());
    return all;
}

Coverage ProfileSession::coverage() {
    Coverage coverage = recorder.coverage();
    const EngineReport report = engine->report();
    coverage.accountedNanoseconds = report.accountedNanoseconds;
    coverage.lost = report.lost;
    coverage.limits = limitsWith(report);
    if (const auto explanation = explainMissingTime(coverage, report)) {
        coverage.limits.push_back(*explanation);
    }
    return coverage;
}

}  // namespace kolvan::profiler
