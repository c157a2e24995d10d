#include "tests/support/player/CommandLine.h"

#include <charconv>
#include <functional>
#include <map>
#include <stdexcept>

namespace kolvan::test {
namespace {

int readNumber(const std::string& option, const std::string& text, int least, int most) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        throw std::invalid_argument(option + ": '" + text + "' is no number from " +
                                    std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

void readListen(ServerSettings& server, const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        throw std::invalid_argument("--listen: '" + text + "' is not of the form ADDRESS:PORT");
    }
    server.address = text.substr(0, colon);
    if (server.address.front() == '[' && server.address.back() == ']') {
        server.address = server.address.substr(1, server.address.size() - 2);
    }
    server.port = readNumber("--listen", text.substr(colon + 1), 0, 65535);
}

using SetOption = std::function<void(CommandLine& line, const std::string& value)>;

const std::map<std::string, SetOption>& options() {
    static const std::map<std::string, SetOption> table = {
        {"--listen", [](auto& line, auto& value) { readListen(line.server, value); }},
        {"--packages", [](auto& line, auto& value) { line.server.packageDirectory = value; }},
        {"--uploads", [](auto& line, auto& value) { line.server.uploadDirectory = value; }},
        {"--token", [](auto& line, auto& value) { line.server.accessToken = value; }},
        {"--certificate", [](auto& line, auto& value) { line.server.certificateFile = value; }},
        {"--key", [](auto& line, auto& value) { line.server.keyFile = value; }},
        {"--scenario", [](auto& line, auto& value) { line.scenarioFile = value; }},
        {"--poll-seconds",
         [](auto& line, auto& value) {
             line.server.pollTimeout =
                 std::chrono::seconds(readNumber("--poll-seconds", value, 1, 3600));
         }},
        {"--step-seconds",
         [](auto& line, auto& value) {
             line.stepPatience =
                 std::chrono::seconds(readNumber("--step-seconds", value, 1, 86400));
         }},
        {"--port-file", [](auto& line, auto& value) { line.portFile = value; }},
        {"--summary", [](auto& line, auto& value) { line.summaryFile = value; }},
    };
    return table;
}

}  // namespace

CommandLine readCommandLine(const std::vector<std::string>& arguments) {
    CommandLine line;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& option = arguments[index];
        if (option == "--help") {
            line.help = true;
            continue;
        }
        const auto known = options().find(option);
        if (known == options().end()) {
            throw std::invalid_argument("'" + option + "' is no option");
        }
        if (index + 1 == arguments.size() || arguments[index + 1].empty()) {
            throw std::invalid_argument(option + " needs a value");
        }
        known->second(line, arguments[++index]);
    }
    if (line.server.certificateFile.empty() != line.server.keyFile.empty()) {
        throw std::invalid_argument("--certificate and --key go together");
    }
    return line;
}

std::string usageText() {
    return "Usage: kolvan-server [OPTION VALUE]...\n"
           "\n"
           "A small profiling server for kolvan-agent. It shows what the agent does and, with a\n"
           "scenario, tells it what to do; without one it serves until it is interrupted.\n"
           "\n"
           "  --listen ADDRESS:PORT  where to listen (127.0.0.1:0; port 0: the system chooses)\n"
           "  --packages DIR         directory of the archives that agents may ask for\n"
           "  --uploads DIR          directory for the traces that agents send\n"
           "  --token TOKEN          access token that an agent must have (any)\n"
           "  --certificate FILE     speak HTTPS with this certificate, in PEM form,\n"
           "  --key FILE             and this private key\n"
           "  --scenario FILE        play this scenario, then end\n"
           "  --step-seconds N       longest time for a step of the scenario (120)\n"
           "  --poll-seconds N       how long to hold a poll when there is no command (30)\n"
           "  --port-file FILE       write the server's URL to this file once it listens\n"
           "  --summary FILE         write a summary, as JSON, to this file at the end\n"
           "  --help                 show this text\n"
           "\n"
           "Exit status: 0 when every step of the scenario happened and the agent has left in\n"
           "order, or when there was no scenario; 1 otherwise; 2 for wrong options or a wrong\n"
           "scenario.\n";
}

}  // namespace kolvan::test
