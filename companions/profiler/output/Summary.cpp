#include "companions/profiler/output/Summary.h"

#include "companions/profiler/output/ProfileTable.h"
#include "companions/profiler/output/TextEscape.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <string_view>

namespace kolvan::profiler {

namespace {

constexpr int kShareDecimals = 4;

/// A JSON text under construction, one key a line.
class JsonText {
public:
    JsonText() { writer.SetIndent(' ', 2); }

    void beginObject() { writer.StartObject(); }
    void endObject() { writer.EndObject(); }
    void beginArray() { writer.StartArray(); }
    void endArray() { writer.EndArray(); }

    void key(std::string_view name) { writer.Key(name.data(), length(name)); }

    void text(std::string_view value) {
        const std::string valid = validUtf8(value);
        writer.String(valid.data(), length(valid));
    }
    void text(std::string_view name, std::string_view value) {
        key(name);
        text(value);
    }

    void number(std::string_view name, std::uint64_t value) {
        key(name);
        writer.Uint64(value);
    }

    /// Written with that many digits after the point: the writer's own way would cut the value
    /// there, not round it.
    void number(double value, int decimals) {
        const std::string digits = decimalText(value, decimals);
        writer.RawValue(digits.data(), digits.size(), rapidjson::kNumberType);
    }
    void number(std::string_view name, double value, int decimals) {
        key(name);
        number(value, decimals);
    }

    void truth(std::string_view name, bool value) {
        key(name);
        writer.Bool(value);
    }

    void null(std::string_view name) {
        key(name);
        writer.Null();
    }

    void numbers(std::string_view name, const std::vector<double>& values, int decimals) {
        key(name);
        writer.SetFormatOptions(rapidjson::kFormatSingleLineArray);
        writer.StartArray();
        for (const double value : values) {
            number(value, decimals);
        }
        writer.EndArray();
        writer.SetFormatOptions(rapidjson::kFormatDefault);
    }

    std::string finished() const {
        return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
    }

private:
    static rapidjson::SizeType length(std::string_view value) {
        return static_cast<rapidjson::SizeType>(value.size());
    }

    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer{buffer};
};

double seconds(std::uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e9;
}

void addCoverage(JsonText& json, const ProfileSummary& profile) {
    const Coverage& coverage = profile.coverage;
    json.number("samples", coverage.samples);
    json.number("lost", coverage.lost);
    json.number("sampledSeconds", seconds(coverage.sampledNanoseconds), 3);
    if (profile.kind == Profile::Kind::Cpu) {
        json.number("accountedSeconds", seconds(coverage.accountedNanoseconds), 3);
        json.number("coverage", shareOf(coverage.sampledNanoseconds, coverage.accountedNanoseconds),
                    kShareDecimals);
    } else {
        json.null("accountedSeconds");
        json.null("coverage");
    }
    json.number("rootShare", shareOf(coverage.samples - coverage.incomplete, coverage.samples),
                kShareDecimals);
    json.number("namedShare", shareOf(coverage.samples - coverage.unnamed, coverage.samples),
                kShareDecimals);
    json.key("limits");
    json.beginArray();
    for (const std::string& limit : coverage.limits) {
        json.text(limit);
    }
    json.endArray();
}

void addTop(JsonText& json, const HotFunctions& hot) {
    json.key("top");
    json.beginArray();
    for (const HotFunctions::Function& function : hot.functions) {
        json.beginObject();
        json.text("function", function.name);
        json.text("module", function.module);
        json.number("self", function.self);
        json.number("total", function.total);
        json.number("selfShare", shareOf(function.self, hot.nanoseconds), kShareDecimals);
        json.number("totalShare", shareOf(function.total, hot.nanoseconds), kShareDecimals);
        json.endObject();
    }
    json.endArray();
}

void addPaths(JsonText& json, const HotFunctions& hot) {
    json.key("paths");
    json.beginArray();
    for (const HotFunctions::Path& path : hot.paths) {
        json.beginObject();
        json.number("self", path.self);
        json.number("selfShare", shareOf(path.self, hot.nanoseconds), kShareDecimals);
        json.truth("complete", path.complete);
        json.key("calls");
        json.beginArray();
        for (const HotFunctions::Call& call : path.calls) {
            json.beginObject();
            json.text("function", call.name);
            json.text("module", call.module);
            json.number("total", call.total);
            json.number("totalShare", shareOf(call.total, hot.nanoseconds), kShareDecimals);
            json.endObject();
        }
        json.endArray();
        json.endObject();
    }
    json.endArray();
}

void addProfile(JsonText& json, const ProfileSummary& profile) {
    json.key("profile");
    json.beginObject();
    json.text("file", profile.path);
    json.text("kind", kindWord(profile.kind));
    json.text("engine", profile.engine);
    json.number("period", profile.period);
    addCoverage(json, profile);
    addTop(json, profile.hot);
    addPaths(json, profile.hot);
    json.endObject();
}

void addCpu(JsonText& json, const Figures& figures) {
    if (figures.cpuMeasured) {
        json.number("cpuPercentAverage", figures.cpuAverage, 1);
        json.number("cpuPercentMax", figures.cpuMost, 1);
    } else {
        json.null("cpuPercentAverage");
        json.null("cpuPercentMax");
    }
    json.numbers("cpuPercentSeries", figures.cpu.points(), 1);
    json.number("valuesPerPoint", figures.cpu.valuesPerPoint());
}

std::string plural(std::uint64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string cpuText(const Figures& figures) {
    return figures.cpuMeasured ? decimalText(figures.cpuAverage, 1) + " % on average, " +
                                     decimalText(figures.cpuMost, 1) + " % at most"
                               : "too short for a figure";
}

}  // namespace

std::string summaryJson(const Summary& summary) {
    const Figures& figures = summary.figures;
    JsonText json;
    json.beginObject();
    json.text("target", summary.target);
    json.number("pid", static_cast<std::uint64_t>(summary.pid));
    json.text("reason", summary.reason);
    if (!summary.targetEnding.empty()) {
        json.text("targetEnding", summary.targetEnding);
    }
    json.number("frequency", summary.frequency);
    json.number("durationSeconds", summary.seconds, 3);
    json.number("samples", figures.samples);
    json.number("missedTicks", summary.missedTicks);
    addCpu(json, figures);
    json.number("residentMaxKiB", figures.residentMost);
    json.number("threadsMax", figures.threadsMost);
    json.text("trace", summary.tracePath);
    if (summary.profile) {
        addProfile(json, *summary.profile);
    }
    json.endObject();
    return json.finished();
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
    text += "CPU:       " + cpuText(figures) + "\n";
    text += "Memory:    " + decimalText(static_cast<double>(figures.residentMost) / 1024, 1) +
            " MiB resident at most\n";
    text += "Threads:   " + std::to_string(figures.threadsMost) + " at most\n";
    text += "Trace:     " + printable(summary.tracePath) + "\n";
    if (summary.profile) {
        text += "Profile:   " + printable(summary.profile->path) + "\n\n" +
                profileTable(*summary.profile);
    }
    return text;
}

}  // namespace kolvan::profiler
