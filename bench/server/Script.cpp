#include "bench/server/Script.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string_view>
#include <utility>

#include <fcntl.h>

namespace kolvan::bench {

namespace {

// The types and the "id" stand near the beginning of a message.
constexpr std::size_t kKeptBytes = 4096;

constexpr const char* kNothing = R"({"messages":[]})";

// The text after `prefix` up to the next quotation mark.
std::string textAfter(const std::string& body, std::string_view prefix) {
    const std::size_t found = body.find(prefix);
    if (found == std::string::npos) {
        return {};
    }
    const std::size_t begin = found + prefix.size();
    return body.substr(begin, body.find('"', begin) - begin);
}

std::string restOfLine(std::istringstream& words) {
    std::string rest;
    std::getline(words >> std::ws, rest);
    return rest;
}

std::string listOf(const std::vector<std::int64_t>& numbers) {
    std::string text = "[";
    for (const std::int64_t number : numbers) {
        text += text.size() > 1 ? "," : "";
        text += std::to_string(number);
    }
    return text + "]";
}

}  // namespace

std::int64_t monotonicTime() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Script::Script(std::filesystem::path packageDirectory) : packages(std::move(packageDirectory)) {}

std::size_t Script::keptBytes() const {
    return latencies ? SIZE_MAX : kKeptBytes;
}

void Script::command(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::uint64_t count = 0;
    words >> verb;
    if (verb == "polls" && words >> count) {
        turns.push_back({count, 0, "", ""});
    } else if (verb == "one-by-one" && words >> count) {
        turns.push_back({count, 1, "collector:execute", R"("args":")" + restOfLine(words) + '"'});
    } else if (verb == "at-once" && words >> count) {
        turns.push_back({1, count, "collector:execute", R"("args":")" + restOfLine(words) + '"'});
    } else if (verb == "collection") {
        turns.push_back(
            {1, 1, "collector:collection:start", R"("options":")" + restOfLine(words) + '"'});
    } else if (verb == "stop") {
        turns.push_back({1, 1, "stop", ""});
    } else if (verb == "delay" && words >> count) {
        delay = static_cast<std::int64_t>(count) * 1'000'000;
    } else if (verb == "latencies") {
        latencies.emplace();
    } else if (verb == "wait") {
        quietWanted = true;
        printIfQuiet();
    } else if (verb == "report") {
        report();
    } else {
        std::cerr << "kolvan-bench-server: what is \"" << line << "\"?\n";
    }
}

std::optional<Answer> Script::answer(const Request& request, int connection) {
    const std::string_view target = request.target;
    if (request.method == "GET") {
        return packageFile(request.target.substr(request.target.find('=') + 1));
    }
    if (target.ends_with("/trace/upload")) {
        firstUpload = uploads == 0 ? request.began : std::min(firstUpload, request.began);
        lastUpload = monotonicTime();
        ++uploads;
        uploadBytes += request.bodySize;
        return Answer{"ok\n"};
    }
    if (request.body.find(R"({"messageType":"commands:get")") == 0) {
        held = connection;
        return std::nullopt;
    }
    return answerMessage(request, connection);
}

std::optional<Answer> Script::answerMessage(const Request& request, int connection) {
    const std::int64_t now = monotonicTime();
    const std::string type = textAfter(request.body, R"("messageType":")");
    if (type == "connect") {
        connected = now;
        return Answer{R"({"messages":[{"messageType":"connected"}]})"};
    }
    if (type == "collector:finish") {
        noteEnd(textAfter(request.body, R"("id":")"), now);
    } else if (type == "collector:stdout" || request.method == "PUT") {
        ++outputMessages;
        outputBytes += request.bodySize;
        if (latencies) {
            latencies->add(textAfter(request.body, R"("message":")"), now);
        }
        if (delay > 0) {
            delayed.emplace(now + delay, connection);
            return std::nullopt;
        }
    }
    return Answer{kNothing};
}

Answer Script::packageFile(const std::string& name) const {
    Answer package;
    const std::filesystem::path path = packages / name;
    std::error_code missing;
    const auto size = std::filesystem::file_size(path, missing);
    if (!missing) {
        package.file = basekit2::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        package.fileSize = size;
    }
    return package;
}

void Script::noteEnd(const std::string& id, std::int64_t now) {
    ends.push_back(now);
    if (const auto operation = running.find(id); operation != running.end()) {
        durations.push_back(now - operation->second);
        running.erase(operation);
    }
    printIfQuiet();
}

std::optional<std::int64_t> Script::timeToNextDue() const {
    if (delayed.empty()) {
        return std::nullopt;
    }
    return std::max<std::int64_t>(delayed.begin()->first - monotonicTime(), 0);
}

std::optional<Script::Due> Script::takeDue() {
    if (timeToNextDue() == 0) {
        const int connection = delayed.extract(delayed.begin()).mapped();
        return Due{connection, {kNothing}};
    }
    if (!held || turns.empty() || !running.empty()) {
        return std::nullopt;
    }
    Due due{*std::exchange(held, std::nullopt), {textOf(turns.front())}};
    if (--turns.front().times == 0) {
        turns.pop_front();
        printIfQuiet();
    }
    return due;
}

std::string Script::textOf(const Turn& turn) {
    std::string text = R"({"messages":[)";
    for (std::uint64_t message = 0; message < turn.messages; ++message) {
        text += message > 0 ? "," : "";
        text += R"({"messageType":")" + turn.type + R"(","messageParameters":{)";
        if (!turn.parameters.empty()) {
            const std::string id = std::to_string(++lastId);
            running[id] = monotonicTime();
            text += R"("id":")" + id + "\"," + turn.parameters;
        }
        text += "}}";
    }
    return text + "]}";
}

void Script::forget(int connection) {
    if (held == connection) {
        held.reset();
    }
    std::erase_if(delayed, [connection](const auto& due) { return due.second == connection; });
}

void Script::printIfQuiet() {
    if (quietWanted && turns.empty() && running.empty()) {
        quietWanted = false;
        std::cout << "quiet" << std::endl;
    }
}

void Script::report() const {
    const auto latency = [this](double share) {
        return latencies ? latencies->quantile(share) : 0;
    };
    std::cout << R"({"connected":)" << connected << R"(,"durations":)" << listOf(durations)
              << R"(,"ends":)" << listOf(ends) << R"(,"outputMessages":)" << outputMessages
              << R"(,"outputBytes":)" << outputBytes << R"(,"uploads":)" << uploads
              << R"(,"uploadBytes":)" << uploadBytes << R"(,"uploadSpan":)"
              << lastUpload - firstUpload << R"(,"lines":)" << (latencies ? latencies->count() : 0)
              << R"(,"p50":)" << latency(0.5) << R"(,"p99":)" << latency(0.99) << R"(,"turnsLeft":)"
              << turns.size() << "}" << std::endl;
}

}  // namespace kolvan::bench
