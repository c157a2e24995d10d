#include "companions/profiler/Progress.h"

#include "companions/demangle/ShortName.h"
#include "companions/profiler/output/HotFunctions.h"
#include "companions/profiler/output/ProfileSummary.h"
#include "companions/profiler/output/TextEscape.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::profiler {

namespace {

constexpr std::array<std::string_view, 5> kTopNames{"top1", "top2", "top3", "top4", "top5"};

}  // namespace

void Progress::addProfile(ProfileSession& profile, double seconds,
                          std::vector<Feedback::Attribute>& attributes, std::string& line) {
    const Coverage coverage = profile.coverage();
    const double sampled = static_cast<double>(coverage.sampledNanoseconds) / 1e9;
    const double passed = seconds - std::exchange(lastSeconds, seconds);
    const auto added =
        static_cast<double>(coverage.samples - std::exchange(lastSamples, coverage.samples));
    attributes.insert(attributes.end(), {{"stacks", std::to_string(coverage.samples)},
                                         {"rate", decimalText(passed > 0 ? added / passed : 0, 0)},
                                         {"sampled", decimalText(sampled, 2)},
                                         {"lost", std::to_string(coverage.lost)}});
    if (coverage.accountedNanoseconds > 0) {
        const double share = shareOf(coverage.sampledNanoseconds, coverage.accountedNanoseconds);
        attributes.emplace_back("coverage", decimalText(share * 100, 1));
    }
    line += "  " + std::to_string(coverage.samples) + " samples";
    const HotFunctions hot = findHotFunctions(profile.profile(), kTopNames.size(), 0);
    for (std::size_t i = 0; i < hot.functions.size(); ++i) {
        const double share = shareOf(hot.functions[i].self, hot.nanoseconds) * 100;
        attributes.emplace_back(kTopNames.at(i),
                                decimalText(share, 1) + " % " + hot.functions[i].name);
        if (share >= 1) {
            line += "  " + decimalText(share, 0) + " % " + shortName(hot.functions[i].name);
        }
    }
}

void Progress::tell(double seconds, const Figures& figures, ProfileSession* profile) {
    std::vector<Feedback::Attribute> attributes = {{"elapsed", decimalText(seconds, 1)},
                                                   {"samples", std::to_string(figures.samples)},
                                                   {"threads", std::to_string(figures.threadsNow)},
                                                   {"cpu", decimalText(figures.cpuNow, 1)},
                                                   {"rss", std::to_string(figures.residentNow)}};
    std::string line = decimalText(seconds, 0) + " s  CPU " + decimalText(figures.cpuNow, 0) + " %";
    if (profile != nullptr) {
        addProfile(*profile, seconds, attributes, line);
    }
    feedback.send("progress", attributes);
    terminal.show(line);
}

void Progress::tellLimits(const std::vector<std::string>& limits,
                          std::chrono::milliseconds patience) {
    for (const std::string& limit : limits) {
        if (toldLimits.insert(limit).second) {
            feedback.send("limit", {{"text", limit}}, patience);
        }
    }
}

}  // namespace kolvan::profiler
