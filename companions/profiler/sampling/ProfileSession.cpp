#include "companions/profiler/sampling/ProfileSession.h"

#include <chrono>
#include <utility>

namespace kolvan::profiler {

ProfileSession::ProfileSession(Profile::Kind kind, std::unique_ptr<Engine> engineToUse,
                               pid_t process, std::uint64_t beginTime)
    : builder(kind, beginTime), engine(std::move(engineToUse)) {
    engine->attach(process, builder);
}

void ProfileSession::finish() {
    engine->finish(builder);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    builder.finish(static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
    const EngineReport report = engine->report();
    builder.describeEngine(report.name, report.period);
}

const Profile& ProfileSession::profile() {
    return builder.named();
}

Coverage ProfileSession::coverage() {
    Coverage coverage = builder.coverage();
    const EngineReport report = engine->report();
    coverage.accountedNanoseconds = report.accountedNanoseconds;
    coverage.lost = report.lost;
    coverage.limits = report.limits;
    return coverage;
}

}  // namespace kolvan::profiler
