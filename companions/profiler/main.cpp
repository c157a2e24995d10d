#include "companions/profiler/Collection.h"
#include "companions/profiler/Options.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/control/ControlClient.h"
#include "companions/profiler/control/Feedback.h"
#include "companions/profiler/machine/Machine.h"
#include "companions/profiler/machine/MachineCheck.h"
#include "companions/profiler/machine/ProcessJson.h"
#include "companions/profiler/machine/ProcessList.h"
#include "companions/profiler/machine/ProcessTable.h"
#include "companions/profiler/machine/TextLayout.h"

#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace kolvan::profiler;

constexpr std::chrono::milliseconds kWindow{250};  // over which processor use is measured

/// Makes sure that no file of ours is taken for a standard stream.
void fillStandardDescriptors() {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor < STDERR_FILENO);
    if (descriptor > STDERR_FILENO) {
        (void)::close(descriptor);  // nothing was written through it
    }
}

ExitCode print(const std::string& text) {
    std::cout << text << std::flush;
    if (!std::cout) {
        throw Failure(ExitCode::Failed, "cannot write to standard output");
    }
    return ExitCode::Whole;
}

ExitCode sendCommand(const Options& options, Feedback& feedback) {
    const std::string answer = sendControlCommand(options.resultDirectory, options.controlCommand);
    feedback.send("command", {{"name", options.controlCommand}, {"answer", answer}});
    return print(answer + "\n");
}

ExitCode printProcesses() {
    const auto processes = listProcesses(kWindow);
    return print(::isatty(STDOUT_FILENO) == 1 ? processTable(processes, terminalWidth())
                                              : processJson(processes));
}

ExitCode checkThisMachine() {
    const Machine machine = readMachine();
    const auto findings = checkMachine(machine);
    (void)print(checkText(machine, findings, terminalWidth()));
    return findings.front().grade == Finding::Grade::Missing ? ExitCode::Failed : ExitCode::Whole;
}

ExitCode run(const Options& options, Feedback& feedback) {
    switch (options.mode) {
        case Options::Mode::Version:
            return print(versionText());
        case Options::Mode::Help:
            return print(usageText());
        case Options::Mode::Command:
            return sendCommand(options, feedback);
        case Options::Mode::Processes:
            return printProcesses();
        case Options::Mode::Check:
            return checkThisMachine();
        case Options::Mode::Collect:
            break;
    }
    return runCollection(options, feedback);
}

int fail(ExitCode code, const std::string& text) {
    std::cerr << "kolvan-trcap: " << text << "\n";
    if (code == ExitCode::Usage) {
        std::cerr << "Try 'kolvan-trcap --help'.\n";
    }
    return static_cast<int>(code);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that went away and a file that reaches a limit are errors of the call that meets
    // them; a command that we start gets the defaults back.
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN);
    fillStandardDescriptors();
    std::optional<Feedback> feedback;
    try {
        const Options options = parseOptions({argv + 1, argv + argc});
        feedback.emplace(options.feedbackDescriptor);
        return static_cast<int>(run(options, *feedback));
    } catch (const Failure& failure) {
        if (feedback) {
            feedback->send("failure",
                           {{"code", std::to_string(static_cast<int>(failure.exitCode()))},
                            {"message", failure.what()}});
        }
        return fail(failure.exitCode(), failure.what());
    } catch (const std::exception& error) {
        return fail(ExitCode::Failed, error.what());
    }
}
