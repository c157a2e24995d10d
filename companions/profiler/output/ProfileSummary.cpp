#include "companions/profiler/output/ProfileSummary.h"

#include "companions/profiler/output/TextEscape.h"

#include <utility>

namespace kolvan::profiler {

namespace {

std::string secondsText(std::uint64_t nanoseconds) {
    return decimalText(static_cast<double>(nanoseconds) / 1e9, 2) + " s";
}

std::string percentText(std::uint64_t part, std::uint64_t whole) {
    return decimalText(shareOf(part, whole) * 100, 1) + " %";
}

}  // namespace

ProfileSummary summarize(const Profile& profile, Coverage coverage, std::string path) {
    return {profile.kind,
            profile.engine,
            profile.period,
            std::move(coverage),
            findHotFunctions(profile, ProfileSummary::kFunctions, ProfileSummary::kPaths),
            std::move(path)};
}

std::string kindWord(Profile::Kind kind) {
    return kind == Profile::Kind::Cpu ? "cpu" : "wait";
}

std::string coverageText(Profile::Kind kind, const Coverage& coverage) {
    std::string text = "sampled " + secondsText(coverage.sampledNanoseconds);
    if (kind == Profile::Kind::Wait) {
        text += " of waiting";  // nobody accounts for it, so there is nothing to compare with
    } else {
        text += " of " + secondsText(coverage.accountedNanoseconds) + " of CPU time";
        if (coverage.accountedNanoseconds > 0) {
            text += " (" + percentText(coverage.sampledNanoseconds, coverage.accountedNanoseconds) +
                    ")";
        }
    }
    text += ", " + std::to_string(coverage.lost) + " lost";
    if (coverage.samples > 0) {
        text += ", " + percentText(coverage.samples - coverage.incomplete, coverage.samples) +
                " of the stacks reach their root, " +
                percentText(coverage.unnamed, coverage.samples) + " without a name";
    }
    return text;
}

double shareOf(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace kolvan::profiler
