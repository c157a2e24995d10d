// The server of packaging/test: tells one agent what to do, and says what it sees of it.
//
// usage: kolvan-package-server TASK [NAME=VALUE]...
//   TASK  idle: nothing, until it is killed
//         whole: ask the collector for its version, then a collection of a program that sleeps
//         held: a collection that ends when the agent is stopped
//         plain: a collection of a collector that needs no options
//         look: let the collector look around, and write down what it says
//   NAME  packages and uploads: directories, url: a file for the server's address, port: the
//         system's choice without it, certificate and key: of HTTPS, hold: for how many seconds a
//         request for commands is held, otherwise longer than anything that is tried meanwhile
//
// The exit status is 0 when the task was carried out and the agent has left in order.

#include "tests/support/standin/ProfilingServer.h"

#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace {

using namespace kolvan::test;

// Some of it is slow on purpose. A deadline only ever fails the test.
constexpr std::chrono::minutes kPatience{15};
constexpr int kManyPolls = 20'000;

void say(const std::string& line) {
    std::cout << line + "\n" << std::flush;
}

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error("The agent did not " + what);
    }
}

void expectEnd(const ProfilingServer& server, const std::string& id, bool withZero) {
    const auto result = server.waitForFinish(id, kPatience);
    require(result.has_value(), "end " + id);
    say("[" + id + "] " +
        (result->code ? "finished with code " + std::to_string(*result->code)
                      : "failed: " + result->errorMessage.value_or("")));
    require(result->code && (!withZero || *result->code == 0), "succeed with " + id);
}

void expectUpload(const ProfilingServer& server) {
    require(server.waitForUploads(1, kPatience), "upload a file");
}

void runWhole(ProfilingServer& server) {
    server.send(messages::execute("v1", "--version"));
    expectEnd(server, "v1", true);
    server.send(messages::startCollection("c1", "-r\nresults\n--duration\n1\n--\n/bin/sleep\n3600",
                                          "traces/c1"));
    expectEnd(server, "c1", true);
    expectUpload(server);
    server.send(messages::stop());
}

void runHeld(ProfilingServer& server) {
    server.send(messages::startCollection("c2", "-r\nresults\n--\n/bin/sleep\n3600", "traces/c2"));
    require(server.waitForOutput("c2", Channel::Feedback, "state=\"started\"", kPatience),
            "start c2");
    say("[c2] started");
    expectEnd(server, "c2", false);
    expectUpload(server);
}

void runPlain(ProfilingServer& server) {
    server.send(messages::startCollection("c3", "-r\nresults", "traces/c3"));
    expectEnd(server, "c3", true);
    expectUpload(server);
    server.send(messages::stop());
}

void runLook(ProfilingServer& server) {
    server.send(messages::execute("l1", "--look"));
    expectEnd(server, "l1", false);
    std::istringstream output(server.output("l1", Channel::Stdout));
    for (std::string line; std::getline(output, line);) {
        say("[l1 stdout] " + line);
    }
    server.send(messages::stop());
}

[[noreturn]] void runIdle(ProfilingServer&) {
    for (;;) {
        pause();
    }
}

const std::map<std::string, std::function<void(ProfilingServer&)>> kTasks = {
    {"idle", runIdle},   {"whole", runWhole}, {"held", runHeld},
    {"plain", runPlain}, {"look", runLook},
};

using Values = std::map<std::string, std::string>;

Values readValues(char** begin, char** end) {
    Values values = {{"packages", ""},    {"uploads", ""}, {"url", ""},     {"port", "0"},
                     {"certificate", ""}, {"key", ""},     {"hold", "3600"}};
    for (; begin != end; ++begin) {
        const std::string text = *begin;
        const std::size_t sign = text.find('=');
        const auto value = values.find(text.substr(0, sign));
        if (sign == std::string::npos || value == values.end()) {
            throw std::runtime_error("'" + text + "' is none of the values");
        }
        value->second = text.substr(sign + 1);
    }
    return values;
}

/// Writes a file that whoever looks for it finds whole or not at all.
void writeWhole(const std::filesystem::path& file, const std::string& content) {
    const std::filesystem::path part = file.string() + ".part";
    std::ofstream stream(part);
    stream << content << std::flush;
    if (!stream) {
        throw std::runtime_error("Failed to write " + part.string());
    }
    std::filesystem::rename(part, file);
}

ServerSettings settingsOf(const Values& values) {
    ServerSettings settings;
    settings.port = std::stoi(values.at("port"));
    settings.certificateFile = values.at("certificate");
    settings.keyFile = values.at("key");
    settings.accessToken = "secret";
    settings.packageDirectory = values.at("packages");
    settings.uploadDirectory = values.at("uploads");
    settings.pollTimeout = std::chrono::seconds(std::stoi(values.at("hold")));
    settings.observer.onMessage = [polls = 0](const AgentMessage& message) mutable {
        if (message.type == "connect" || message.type == "disconnect") {
            say("agent " + message.type + "ed");
        } else if (message.type == "commands:get" && ++polls == kManyPolls) {
            say(std::to_string(kManyPolls) + " requests for commands");
        }
    };
    settings.observer.onPackage = [](const std::string& name, bool found) {
        say("package " + name + (found ? " is sent" : " is asked for, but there is none"));
    };
    settings.observer.onProblem = [](const std::string& problem) { say("problem: " + problem); };
    return settings;
}

}  // namespace

int main(int argumentCount, char** arguments) try {
    if (argumentCount < 2) {
        return 2;
    }
    const auto& task = kTasks.at(arguments[1]);
    const Values values = readValues(arguments + 2, arguments + argumentCount);
    ProfilingServer server(settingsOf(values));
    writeWhole(values.at("url"), server.endpoint() + "\n");
    task(server);
    require(server.waitForMessage("disconnect", 1, kPatience), "leave");
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
}
