#include "tests/support/player/ScenarioPlayer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kolvan::test {
namespace {

// How often a wait looks whether it was interrupted. Events end a wait at once.
constexpr std::chrono::milliseconds kInterruptInterval{100};
constexpr std::chrono::seconds kFarewell{10};

bool hasLeft(const ServerRecords& records) {
    return records.count("disconnect") != 0;
}

bool hasFinished(const ServerRecords& records, const std::string& id) {
    const OperationRecord* const operation = records.operations.find(id);
    return operation != nullptr && !operation->results.empty();
}

bool hasOutput(const ServerRecords& records, const ScenarioStep& step) {
    const OperationRecord* const operation = records.operations.find(step.id);
    return operation != nullptr &&
           operation->channel(step.channel).text.find(step.argument) != std::string::npos;
}

bool hasUpload(const ServerRecords& records, const std::string& directory) {
    return std::any_of(records.uploads.begin(), records.uploads.end(),
                       [&](const UploadRecord& upload) {
                           return upload.remoteDirectory == directory ||
                                  upload.remoteDirectory.starts_with(directory + "/");
                       });
}

std::string inSeconds(std::chrono::milliseconds time) {
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) +
           " seconds";
}

}  // namespace

ScenarioPlayer::ScenarioPlayer(ProfilingServer& profilingServer,
                               std::chrono::milliseconds longestStep,
                               std::function<bool()> isInterrupted)
    : server(profilingServer), patience(longestStep), interrupted(std::move(isInterrupted)) {}

ScenarioOutcome ScenarioPlayer::play(const std::vector<ScenarioStep>& steps) {
    ScenarioOutcome outcome;
    std::string place;
    try {
        waitFor("the agent to connect",
                [](const ServerRecords& records) { return records.count("connect") != 0; });
        for (const ScenarioStep& step : steps) {
            place = "line " + std::to_string(step.line) + ", '" + step.text + "': ";
            perform(step);
            ++outcome.stepsPlayed;
        }
        place.clear();
        waitFor("the agent to disconnect", hasLeft);
    } catch (const std::runtime_error& error) {
        outcome.problem = place + error.what();
    }
    return outcome;
}

void ScenarioPlayer::perform(const ScenarioStep& step) {
    using Action = ScenarioStep::Action;
    switch (step.action) {
        case Action::Execute:
        case Action::Start:
        case Action::Command:
        case Action::Cancel:
        case Action::Stop:
            sendFor(step);
            return;
        case Action::WaitConnected:
            waitFor("the agent to connect",
                    [](const ServerRecords& records) { return records.count("connect") != 0; });
            return;
        case Action::WaitFinish:
            waitFor("the end of '" + step.id + "'",
                    [&](const ServerRecords& records) { return hasFinished(records, step.id); });
            checkEnd(step);
            return;
        case Action::WaitOutput:
            waitFor("that output",
                    [&](const ServerRecords& records) { return hasOutput(records, step); });
            return;
        case Action::WaitCancelled:
            waitFor("the agent to cancel", [&](const ServerRecords& records) {
                return records.count("collector:operations:cancelled") >= cancelsSent;
            });
            return;
        case Action::WaitUpload:
            waitFor("a file in '" + step.argument + "'", [&](const ServerRecords& records) {
                return hasUpload(records, step.argument);
            });
            return;
    }
}

void ScenarioPlayer::sendFor(const ScenarioStep& step) {
    if (server.count("disconnect") != 0) {
        throw std::runtime_error("the agent has disconnected too early");
    }
    using Action = ScenarioStep::Action;
    if (step.action == Action::Execute) {
        server.send(messages::execute(step.id, step.argument));
    } else if (step.action == Action::Start) {
        server.send(messages::startCollection(step.id, step.options, step.argument));
    } else if (step.action == Action::Command) {
        server.send(messages::collectionCommand(step.id, step.argument));
    } else if (step.action == Action::Cancel) {
        ++cancelsSent;
        server.send(messages::cancel());
    } else {
        stopSent = true;
        server.send(messages::stop());
    }
}

void ScenarioPlayer::waitFor(const std::string& what,
                             const std::function<bool(const ServerRecords&)>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    bool happened = false;
    bool left = false;
    const auto decided = [&](const ServerRecords& records) {
        happened = holds(records);
        left = hasLeft(records);
        return happened || left;
    };
    while (!server.waitUntil(decided, kInterruptInterval)) {
        if (interrupted()) {
            throw std::runtime_error("interrupted while waiting for " + what);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            throw std::runtime_error("waited " + inSeconds(patience) + " in vain for " + what);
        }
    }
    if (!happened) {
        throw std::runtime_error("the agent has disconnected too early");
    }
}

void ScenarioPlayer::checkEnd(const ScenarioStep& step) {
    const OperationResult result = server.operation(step.id)->results.front();
    if (step.end == ScenarioStep::End::Error) {
        if (!result.errorMessage) {
            throw std::runtime_error("it did not fail");
        }
        return;
    }
    if (result.errorMessage) {
        throw std::runtime_error("it failed: " + *result.errorMessage);
    }
    if (!result.code) {
        throw std::runtime_error("it ended without an exit code");
    }
    if (step.end == ScenarioStep::End::Code && *result.code != step.code) {
        throw std::runtime_error("the exit code is " + std::to_string(*result.code));
    }
}

void ScenarioPlayer::dismissAgent() {
    if (server.count("connect") == 0 || server.count("disconnect") != 0) {
        return;
    }
    if (!stopSent) {
        server.send({messages::cancel(), messages::stop()});
    }
    const std::chrono::milliseconds farewell =
        std::min<std::chrono::milliseconds>(patience, kFarewell);
    (void)server.waitUntil(hasLeft, farewell);  // it was asked; more cannot be done from here
}

}  // namespace kolvan::test
