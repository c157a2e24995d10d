#include "companions/profiler/output/ProfileTable.h"

#include "companions/demangle/ShortName.h"
#include "companions/profiler/output/TextEscape.h"

#include <cstdint>
#include <string_view>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kWidestName = 70;
constexpr std::size_t kWidestModule = 30;
constexpr double kSmallPath = 0.01;
// A path with more calls than these together is cut between them.
constexpr std::size_t kCallsAtTheRoot = 6;
constexpr std::size_t kCallsAtTheEnd = 14;
// With fewer periods than these a busy program may end between two looks at it.
constexpr std::uint64_t kPeriodsForASample = 5;

std::string rightAligned(const std::string& text, std::size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

std::string percent(std::uint64_t part, std::uint64_t whole) {
    return rightAligned(decimalText(shareOf(part, whole) * 100, 1), 5) + " %";
}

/// `name (module)`, the module without its directories. Names that stand for a module have said
/// enough.
std::string title(const std::string& name, const std::string& module) {
    const std::string file = module.substr(module.rfind('/') + 1);
    const std::string text = cutInTheMiddle(printable(shortName(name)), kWidestName);
    return file.empty() ? text : text + " (" + cutInTheMiddle(printable(file), kWidestModule) + ")";
}

std::string functionLines(const HotFunctions& hot) {
    std::string text = "   Self    Total   Seconds  Function (module)\n";
    for (const HotFunctions::Function& function : hot.functions) {
        text += percent(function.self, hot.nanoseconds) + "  " +
                percent(function.total, hot.nanoseconds) +
                rightAligned(decimalText(static_cast<double>(function.self) / 1e9, 2), 10) + "  " +
                title(function.name, function.module) + "\n";
    }
    return text;
}

std::string pathLines(const HotFunctions::Path& path, std::uint64_t all) {
    constexpr std::size_t kMost = kCallsAtTheRoot + kCallsAtTheEnd;
    const std::size_t calls = path.calls.size();
    std::string text;
    std::string indent = "  ";
    if (!path.complete) {
        text += rightAligned("", 7) + indent + "... (the stack was cut here)\n";
        indent += ' ';
    }
    for (std::size_t index = 0; index < calls; ++index) {
        if (index == kCallsAtTheRoot && calls > kMost + 1) {
            text += rightAligned("", 7) + indent + "... (" + std::to_string(calls - kMost) +
                    " more calls)\n";
            indent += ' ';
            index = calls - kCallsAtTheEnd;
        }
        const HotFunctions::Call& call = path.calls[index];
        text += percent(call.total, all) + indent + title(call.name, call.module) + "\n";
        indent += ' ';
    }
    return text;
}

std::string withoutSamples(const ProfileSummary& profile) {
    const Coverage& coverage = profile.coverage;
    if (profile.kind == Profile::Kind::Wait) {
        return "Empty:     no thread was seen waiting\n";
    }
    if (coverage.accountedNanoseconds == 0) {
        return "Empty:     the target used no CPU time\n";
    }
    const std::string used =
        decimalText(static_cast<double>(coverage.accountedNanoseconds) / 1e6, 1) + " ms";
    if (coverage.lost == 0 && coverage.accountedNanoseconds < kPeriodsForASample * profile.period) {
        return "Empty:     the target used " + used +
               " of CPU time, too little for a sample every " +
               decimalText(static_cast<double>(profile.period) / 1e6, 1) + " ms\n";
    }
    return "Blind:     no sample of the " + used + " of CPU time that the target used, " +
           std::to_string(coverage.lost) + " lost\n";
}

}  // namespace

std::string profileTable(const ProfileSummary& profile) {
    const HotFunctions& hot = profile.hot;
    std::string text;
    if (hot.functions.empty()) {
        text = withoutSamples(profile);
    } else {
        text = functionLines(hot);
        for (const HotFunctions::Path& path : hot.paths) {
            // The hottest one always says where the time goes; small ones say nothing.
            if (&path != &hot.paths.front() && shareOf(path.self, hot.nanoseconds) < kSmallPath) {
                break;
            }
            text += "\n" + percent(path.self, hot.nanoseconds) + "  of the time ends this path:\n" +
                    pathLines(path, hot.nanoseconds);
        }
        text += "\nCoverage:  " + coverageText(profile.kind, profile.coverage) + "\n";
    }
    for (const std::string& limit : profile.coverage.limits) {
        text += "Limit:     " + printable(limit) + "\n";
    }
    return text;
}

}  // namespace kolvan::profiler
