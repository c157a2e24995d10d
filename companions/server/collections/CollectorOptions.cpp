#include "companions/server/collections/CollectorOptions.h"

#include <initializer_list>
#include <stdexcept>
#include <string_view>

namespace kolvan::server {

namespace {

/// The collector's exit status for "cancelled or ended by a signal, with whole results".
constexpr int kCancelledStatus = 5;

void addLines(std::string& text, std::initializer_list<std::string_view> lines) {
    for (const std::string_view line : lines) {
        text.append(text.empty() ? "" : "\n").append(line);
    }
}

void addArgument(std::string& text, const std::string& argument) {
    if (argument.empty() || argument.find('\n') != std::string::npos ||
        argument.find('\0') != std::string::npos) {
        throw std::invalid_argument(
            "an argument of the command is empty or has a line feed or NUL in it");
    }
    if (argument == "-r") {
        throw std::invalid_argument(
            "an argument of the command is \"-r\": the agent would put a directory of its own in "
            "place of the one behind it");
    }
    addLines(text, {argument});
}

}  // namespace

std::string collectorOptions(const CollectionRequest& request) {
    if (request.pid.has_value() != request.command.empty()) {
        throw std::invalid_argument("a collection needs either a process or a command");
    }
    std::string text;
    addLines(text, {"-r", "results", "--profile", request.profile});
    addLines(text, {"--frequency", std::to_string(request.frequency)});
    if (request.duration) {
        addLines(text, {"--duration", std::to_string(request.duration->count()) + "ms"});
    }
    if (!request.children) {
        addLines(text, {"--no-children"});
    }
    if (request.pid) {
        addLines(text, {"--pid", std::to_string(*request.pid)});
        return text;
    }
    addLines(text, {"--"});
    for (const std::string& argument : request.command) {
        addArgument(text, argument);
    }
    return text;
}

CollectionState outcomeOf(std::optional<int> exitCode) {
    if (exitCode == 0) {
        return CollectionState::Done;
    }
    return exitCode == kCancelledStatus ? CollectionState::Cancelled : CollectionState::Failed;
}

}  // namespace kolvan::server
