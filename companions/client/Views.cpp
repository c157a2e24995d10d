#include "companions/client/Views.h"

#include "companions/client/Printable.h"
#include "companions/client/Table.h"
#include "companions/demangle/ShortName.h"

#include <array>
#include <charconv>
#include <cmath>

namespace kolvan::client {

namespace {

using Side = Table::Side;

std::string decimal(double value, int digits) {
    std::array<char, 400> buffer{};  // long enough for the largest double
    const auto end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                      std::isfinite(value) ? value : 0, std::chars_format::fixed, digits)
            .ptr;
    return {buffer.data(), end};
}

std::string percent(double part, double whole) {
    return decimal(whole > 0 ? part / whole * 100 : 0, 1) + " %";
}

/// A function's name and that of its file, short enough for a line: types of parameters and
/// directories are in the JSON.
std::string nameOf(const JsonValue& function) {
    return shortName(textOf(function, "name"));
}
std::string fileOf(const JsonValue& function) {
    const std::string path = textOf(function, "module");
    return path.substr(path.rfind('/') + 1);
}

/// Of two signs, so that what has grown stands out.
std::string difference(double share) {
    const std::string text = decimal(share * 100, 1);
    return (text.starts_with('-') ? "" : "+") + text + " %";
}

std::string amount(double value, const std::string& unit) {
    return unit == "nanoseconds" ? decimal(value / 1e9, 3) + " s" : decimal(value, 0);
}

std::string dash(const std::string& text) {
    return text.empty() ? "-" : text;
}

std::string targetOf(const JsonValue& collection) {
    const JsonValue& target = member(collection, "target");
    if (target.IsObject() && target.HasMember("pid")) {
        return "process " + decimal(numberOf(target, "pid"), 0);
    }
    std::string words;
    for (const JsonValue& word : arrayOf(target, "command").GetArray()) {
        words += (words.empty() ? "" : " ") + std::string(word.IsString() ? word.GetString() : "?");
    }
    return words;
}

std::string stateOf(const JsonValue& collection) {
    return textOf(collection, "state") +
           (flagOf(collection, "notConfirmed") ? ", not confirmed" : "");
}

}  // namespace

std::string agentsView(const JsonValue& agents) {
    Table table({{"NAME"}, {"HOST"}, {"PRESENCE"}, {"LAST SEEN"}, {"ID"}});
    for (const JsonValue& agent : agents.GetArray()) {
        table.add({textOf(agent, "name"), textOf(agent, "host"), textOf(agent, "presence"),
                   textOf(agent, "lastSeen"), textOf(agent, "id")});
    }
    return table.text();
}

std::string processesView(const JsonValue& list) {
    Table table({{"PID", Side::Right},
                 {"USER"},
                 {"CPU", Side::Right},
                 {"THREADS", Side::Right},
                 {"PROFILABLE"},
                 {"COMMAND"}});
    for (const JsonValue& process : arrayOf(list, "processes").GetArray()) {
        const std::string reason = textOf(process, "reason");
        const std::string no = reason.empty() ? "no" : "no: " + reason;
        table.add({decimal(numberOf(process, "pid"), 0), textOf(process, "user"),
                   decimal(numberOf(process, "cpu"), 1) + " %",
                   decimal(numberOf(process, "threads"), 0),
                   flagOf(process, "profilable") ? "yes" : no, textOf(process, "command")});
    }
    return table.text();
}

std::string collectionsView(const JsonValue& collections) {
    Table table({{"MADE"}, {"AGENT"}, {"TARGET"}, {"PROFILE"}, {"STATE"}, {"NAME"}, {"ID"}});
    for (const JsonValue& collection : collections.GetArray()) {
        table.add({textOf(collection, "made"), textOf(collection, "agentName"),
                   targetOf(collection), textOf(collection, "profile"), stateOf(collection),
                   dash(textOf(collection, "name")), textOf(collection, "id")});
    }
    return table.text();
}

std::string collectionView(const JsonValue& collection) {
    std::string text;
    const auto line = [&text](std::string title, const std::string& value) {
        if (!value.empty()) {
            title.resize(12, ' ');
            text += title + printable(value) + "\n";
        }
    };
    const double seconds = numberOf(collection, "durationSeconds");
    line("Id:", textOf(collection, "id"));
    line("Name:", textOf(collection, "name"));
    line("Note:", textOf(collection, "note"));
    line("Agent:", textOf(collection, "agentName"));
    line("Target:", targetOf(collection));
    line("Profile:", textOf(collection, "profile") + ", " +
                         decimal(numberOf(collection, "frequency"), 0) + " looks a second" +
                         (seconds > 0 ? ", " + decimal(seconds, 1) + " s" : ""));
    line("State:", stateOf(collection));
    line("Error:", textOf(collection, "error"));
    line("Made:", textOf(collection, "made") + " by " + textOf(collection, "madeBy"));
    line("Started:", textOf(collection, "started"));
    line("Ended:", textOf(collection, "ended"));
    return text;
}

std::string agentTokensView(const JsonValue& tokens) {
    Table table({{"NAME"}, {"FOR"}, {"MADE"}, {"REVOKED"}});
    for (const JsonValue& token : tokens.GetArray()) {
        table.add({textOf(token, "name"), flagOf(token, "shared") ? "many agents" : "one agent",
                   textOf(token, "made"), dash(textOf(token, "revoked"))});
    }
    return table.text();
}

std::string topView(const JsonValue& top, std::size_t most) {
    const std::string unit = textOf(top, "unit");
    const double total = numberOf(top, "total");
    Table table({{"SELF", Side::Right},
                 {"", Side::Right},
                 {"TOTAL", Side::Right},
                 {"", Side::Right},
                 {"FUNCTION"},
                 {"MODULE"}});
    std::size_t count = 0;
    for (const JsonValue& function : arrayOf(top, "functions").GetArray()) {
        if (count++ == most) {
            break;
        }
        const double self = numberOf(function, "self");
        const double whole = numberOf(function, "total");
        table.add({amount(self, unit), percent(self, total), amount(whole, unit),
                   percent(whole, total), nameOf(function), fileOf(function)});
    }
    return "Total: " + amount(total, unit) + " of " + printable(textOf(top, "sampleType")) + "\n" +
           table.text();
}

std::string comparisonView(const JsonValue& comparison, std::size_t most) {
    const std::string unit = textOf(comparison, "unit");
    const double base = numberOf(comparison, "baseTotal");
    const double other = numberOf(comparison, "otherTotal");
    Table table({{"CHANGE", Side::Right},
                 {"BASE", Side::Right},
                 {"OTHER", Side::Right},
                 {"FUNCTION"},
                 {"MODULE"}});
    std::size_t count = 0;
    for (const JsonValue& function : arrayOf(comparison, "functions").GetArray()) {
        if (count++ == most) {
            break;
        }
        table.add({difference(numberOf(function, "selfDifference")),
                   percent(numberOf(function, "baseSelf"), base),
                   percent(numberOf(function, "otherSelf"), other), nameOf(function),
                   fileOf(function)});
    }
    return "Total: " + amount(base, unit) + " and " + amount(other, unit) + " of " +
           printable(textOf(comparison, "sampleType")) +
           "; shares are those of the functions themselves\n" + table.text();
}

}  // namespace kolvan::client
