#include "companions/check/Report.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstddef>

namespace kolvan::check {

namespace {

const char* nameOf(Severity severity) {
    switch (severity) {
        case Severity::Note:
            return "note";
        case Severity::Warning:
            return "warning";
        case Severity::Error:
            return "error";
    }
    return "finding";
}

std::size_t count(const Findings& findings, Severity severity) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [severity](const Finding& finding) { return finding.severity == severity; }));
}

std::string counted(std::size_t number, const char* what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

// Names and answers come from outside; a terminal must not obey what stands in them.
std::string printable(const std::string& text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7F) {
            result += "\\x";
            result += kDigits[byte >> 4U];
            result += kDigits[byte & 0x0FU];
        } else {
            result += character;
        }
    }
    return result;
}

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void write(Writer& json, const char* key, const std::string& value) {
    json.Key(key);
    json.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

void write(Writer& json, const char* key, std::size_t value) {
    json.Key(key);
    json.Uint64(value);
}

void write(Writer& json, const Finding& finding) {
    json.StartObject();
    write(json, "severity", std::string(nameOf(finding.severity)));
    write(json, "topic", finding.topic);
    write(json, "subject", finding.place.subject);
    if (finding.place.line != 0) {
        write(json, "line", finding.place.line);
        write(json, "column", finding.place.column);
    }
    write(json, "text", finding.text);
    json.EndObject();
}

}  // namespace

std::string plainReport(const Findings& findings) {
    std::string report;
    for (const Finding& finding : findings) {
        std::string place = finding.place.subject;
        if (finding.place.line != 0) {
            place += ":" + std::to_string(finding.place.line) + ":" +
                     std::to_string(finding.place.column);
        }
        report +=
            printable(std::string(nameOf(finding.severity)) + ": " + place + ": " + finding.text) +
            "\n";
    }
    const std::size_t errors = count(findings, Severity::Error);
    const std::size_t warnings = count(findings, Severity::Warning);
    report += findings.empty()
                  ? "Nothing to say.\n"
                  : counted(errors, "error") + ", " + counted(warnings, "warning") + ".\n";
    return report;
}

std::string jsonReport(const Findings& findings) {
    rapidjson::StringBuffer buffer;
    Writer json(buffer);
    json.StartObject();
    json.Key("findings");
    json.StartArray();
    for (const Finding& finding : findings) {
        write(json, finding);
    }
    json.EndArray();
    write(json, "errors", count(findings, Severity::Error));
    write(json, "warnings", count(findings, Severity::Warning));
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

int exitCodeFor(const Findings& findings) {
    return count(findings, Severity::Error) == 0 ? 0 : 1;
}

std::string plainReport(pid_t process, const std::string& server, const AliveAnswer& answer) {
    return printable("Process " + std::to_string(process) + " is " +
                     (answer.alive ? "alive. " : "alone. ") + answer.text +
                     (server.empty() ? "" : " Its configuration names " + server + ".")) +
           "\n";
}

std::string jsonReport(pid_t process, const std::string& server, const AliveAnswer& answer) {
    rapidjson::StringBuffer buffer;
    Writer json(buffer);
    json.StartObject();
    write(json, "process", static_cast<std::size_t>(process));
    json.Key("alive");
    json.Bool(answer.alive);
    write(json, "reason", answer.reason);
    if (!server.empty()) {
        write(json, "server", server);
    }
    write(json, "text", answer.text);
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

}  // namespace kolvan::check
