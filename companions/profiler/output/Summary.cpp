#include "companions/profiler/output/Summary.h"

#include "companions/profiler/output/TextEscape.h"

namespace kolvan::profiler {

namespace {

std::string pointsJson(const CpuSeries& series) {
    std::string text = "[";
    for (const double point : series.points()) {
        text += (text.size() > 1 ? "," : "") + decimalText(point, 1);
    }
    return text + "]";
}

std::string plural(std::uint64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

/// What a terminal shows must not be able to control it.
std::string printable(const std::string& text) {
    std::string result = text;
    for (char& character : result) {
        const auto code = static_cast<unsigned char>(character);
        character = code < 0x20 || code == 0x7F ? '?' : character;
    }
    return result;
}

}  // namespace

std::string summaryJson(const Summary& summary) {
    const Figures& figures = summary.figures;
    std::string text = "{\n";
    text += "  \"target\": " + jsonString(summary.target) + ",\n";
    text += "  \"pid\": " + std::to_string(summary.pid) + ",\n";
    text += "  \"reason\": " + jsonString(summary.reason) + ",\n";
    if (!summary.targetEnding.empty()) {
        text += "  \"targetEnding\": " + jsonString(summary.targetEnding) + ",\n";
    }
    text += "  \"frequency\": " + std::to_string(summary.frequency) + ",\n";
    text += "  \"durationSeconds\": " + decimalText(summary.seconds, 3) + ",\n";
    text += "  \"samples\": " + std::to_string(figures.samples) + ",\n";
    text += "  \"missedTicks\": " + std::to_string(summary.missedTicks) + ",\n";
    text += "  \"cpuPercentAverage\": " + decimalText(figures.cpuAverage, 1) + ",\n";
    text += "  \"cpuPercentMax\": " + decimalText(figures.cpuMost, 1) + ",\n";
    text += "  \"cpuPercentSeries\": " + pointsJson(figures.cpu) + ",\n";
    text += "  \"valuesPerPoint\": " + std::to_string(figures.cpu.valuesPerPoint()) + ",\n";
    text += "  \"residentMaxKiB\": " + std::to_string(figures.residentMost) + ",\n";
    text += "  \"threadsMax\": " + std::to_string(figures.threadsMost) + ",\n";
    text += "  \"trace\": " + jsonString(summary.tracePath) + "\n";
    return text + "}\n";
}

std::string summaryText(const Summary& summary) {
    const Figures& figures = summary.figures;
    std::string text = "Target:    " + printable(summary.target) + " (process " +
                       std::to_string(summary.pid) + ")\n";
    text += "Ended:     " + summary.reasonText +
            (summary.targetEnding.empty() ? "" : ", the command " + summary.targetEnding) + "\n";
    text += "Duration:  " + decimalText(summary.seconds, 2) + " s, " +
            plural(figures.samples, "sample") + " at " + std::to_string(summary.frequency) +
            " Hz, " + plural(summary.missedTicks, "tick") + " missed\n";
    text += "CPU:       " + decimalText(figures.cpuAverage, 1) + " % on average, " +
            decimalText(figures.cpuMost, 1) + " % at most\n";
    text += "Memory:    " + decimalText(static_cast<double>(figures.residentMost) / 1024, 1) +
            " MiB resident at most\n";
    text += "Threads:   " + std::to_string(figures.threadsMost) + " at most\n";
    text += "Trace:     " + printable(summary.tracePath) + "\n";
    return text;
}

}  // namespace kolvan::profiler
