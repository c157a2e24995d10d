#include "tests/support/player/CommandLine.h"
#include "tests/support/player/LiveView.h"
#include "tests/support/player/Scenario.h"
#include "tests/support/player/ScenarioPlayer.h"
#include "tests/support/player/Summary.h"
#include "tests/support/standin/ProfilingServer.h"

#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using namespace kolvan::test;

constexpr int kFailed = 1;
constexpr int kWrongUse = 2;

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

/// Lets SIGINT and SIGTERM through only where the program waits for them.
sigset_t catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigset_t before;
    sigprocmask(SIG_BLOCK, &signals, &before);
    sigdelset(&before, SIGINT);
    sigdelset(&before, SIGTERM);
    return before;
}

/// Writes a file that whoever looks for it finds whole or not at all.
void writeWhole(const std::filesystem::path& file, const std::string& content) {
    const std::filesystem::path temporary =
        file.string() + "." + std::to_string(getpid()) + ".part";
    std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("Failed to write " + temporary.string());
    }
    std::filesystem::rename(temporary, file);
}

std::vector<ScenarioStep> loadScenario(const CommandLine& commandLine) {
    if (!commandLine.scenarioFile) {
        return {};
    }
    const std::string name = commandLine.scenarioFile->string();
    std::ifstream file(name);
    if (!file) {
        throw std::invalid_argument("--scenario: " + name + " cannot be read");
    }
    try {
        return readScenario(file, name, environmentVariables());
    } catch (const std::runtime_error& error) {
        throw std::invalid_argument(error.what());
    }
}

ScenarioOutcome playScenario(ProfilingServer& server, const CommandLine& commandLine,
                             const std::vector<ScenarioStep>& steps, const sigset_t& waitMask) {
    ScenarioPlayer player(server, commandLine.stepPatience, [] { return interrupted != 0; });
    sigprocmask(SIG_SETMASK, &waitMask, nullptr);
    ScenarioOutcome outcome = player.play(steps);
    if (!outcome.succeeded()) {
        std::cerr << "The scenario failed: " << printable(outcome.problem) << std::endl;
        player.dismissAgent();
    }
    return outcome;
}

void serveUntilInterrupted(const sigset_t& waitMask) {
    while (interrupted == 0) {
        sigsuspend(&waitMask);
    }
}

int run(CommandLine commandLine) {
    const std::vector<ScenarioStep> steps = loadScenario(commandLine);
    const sigset_t waitMask = catchInterrupts();
    LiveView view(std::cout);
    commandLine.server.observer = view.observer();
    ProfilingServer server(commandLine.server);
    std::cout << "listening on " + server.endpoint() + "\n" << std::flush;
    if (commandLine.portFile) {
        writeWhole(*commandLine.portFile, server.endpoint() + "\n");
    }
    ScenarioOutcome outcome;
    if (commandLine.scenarioFile) {
        outcome = playScenario(server, commandLine, steps, waitMask);
    } else {
        serveUntilInterrupted(waitMask);
    }
    if (commandLine.summaryFile) {
        writeWhole(*commandLine.summaryFile,
                   summaryJson(server.endpoint(), server.records(), steps, outcome));
    }
    return outcome.succeeded() ? 0 : kFailed;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        CommandLine commandLine = readCommandLine({argv + 1, argv + argc});
        if (commandLine.help) {
            std::cout << usageText();
            return 0;
        }
        return run(std::move(commandLine));
    } catch (const std::invalid_argument& error) {
        std::cerr << "kolvan-server: " << error.what() << "\nTry --help." << std::endl;
        return kWrongUse;
    } catch (const std::exception& error) {
        std::cerr << "kolvan-server: " << error.what() << std::endl;
        return kFailed;
    }
}
