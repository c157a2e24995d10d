#include "tests/soak/AgentCounts.h"
#include "tests/soak/Ledger.h"
#include "tests/soak/Moods.h"
#include "tests/soak/RandomOperation.h"
#include "tests/soak/SoakScene.h"
#include "tests/soak/Workloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::test::soak {

namespace {

constexpr std::uint64_t kOneFaultIn = 20;
constexpr std::uint64_t kLargestBatch = 24;

// How many KiB of memory an idle agent may have more than after its first operations: it keeps
// arenas for as many threads as ever ran, each with what was last in it.
constexpr std::uint64_t kAllowance = 64U << 10U;

/// How a life ends: one way after the other, so that a few lives know them all.
enum class Ending {
    Stop,           ///< the server says so
    Interrupt,      ///< SIGINT
    StopWhileBusy,  ///< the server says so together with a last batch of operations
    LostPoll,       ///< the connection breaks: the agent reports what it runs, and is killed
    ServerGone,     ///< the server goes while operations run, and the agent is killed
};

constexpr std::array kEndings{Ending::Stop, Ending::LostPoll, Ending::Interrupt, Ending::ServerGone,
                              Ending::StopWhileBusy};

using Faults = std::vector<Fault>;

const Faults kFaultsOfCollectors{Fault::Failure, Fault::Death};
const Faults kFaultsWithoutCancel{Fault::Failure, Fault::Death, Fault::LostOutput,
                                  Fault::LostFinish, Fault::ErrorStatus};
const Faults kAllFaults{Fault::Failure,    Fault::Death,      Fault::Cancel,
                        Fault::LostOutput, Fault::LostFinish, Fault::ErrorStatus};

Fault randomFault(Randomness& random, const Faults& faults) {
    return random.oneIn(kOneFaultIn) ? faults[random.below(faults.size())] : Fault::None;
}

/// What lives have brought in all.
struct Totals {
    std::size_t lives = 0;
    std::size_t operations = 0;
    std::size_t faults = 0;
    std::uint64_t written = 0;    ///< by collectors, in bytes
    std::uint64_t arrived = 0;    ///< at the server
    std::uint64_t lost = 0;       ///< in requests whose connection was reset
    std::uint64_t abandoned = 0;  ///< by operations that had failed, and by agents that were killed
    AgentCounts most;             ///< that an idle agent had since the last row
};

bool startsWith(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

/// One agent from its start to its end, with everything that it is asked to do.
class RandomLife {
public:
    RandomLife(std::uint64_t seed, std::size_t number, Totals& totals)
        : random(streamOf(seed, number)),
          moods(random.next()),
          scene(settings()),
          agent(launchWithoutLog(scene)),
          totals(totals) {
        scene.relay().treat([this](const std::string& request) { return ledger.judge(request); });
        const bool moody = random.oneIn(4);
        scene.server().answerWith([this, moody](const AgentMessage& message) {
            throwIfPlanned(message);
            return moody ? moods(message) : std::nullopt;
        });
    }

    RandomLife(const RandomLife&) = delete;
    RandomLife& operator=(const RandomLife&) = delete;

    void run(std::uint64_t mostBatches) {
        ASSERT_TRUE(scene.server().waitForHeldPolls());
        std::optional<AgentCounts> warm;
        for (std::uint64_t count = 1 + random.below(mostBatches); count > 0; --count) {
            sendBatch(kAllFaults);
            expectBatch();
            // A poll may be answered with an error status, which makes the agent ask again.
            errorStatusForPoll = random.oneIn(kOneFaultIn);
            warm = warm ? warm : idleCounts(scene, agent);
        }
        const AgentCounts idle = idleCounts(scene, agent);
        expectFlat(*warm, idle, kAllowance);
        noteCounts(idle);
        const Ending ending = kEndings[totals.lives % kEndings.size()];
        end(ending);
        expectTheEnd(ending);
    }

private:
    SceneSettings settings() {
        SceneSettings wanted;
        wanted.throughRelay = true;
        wanted.server.observer.onOutput = [this](const OutputChunk& chunk) {
            ledger.arrive(chunk);
        };
        return wanted;
    }

    // What leaves the server's handler becomes the status 500.
    void throwIfPlanned(const AgentMessage& message) {
        const bool isPoll = message.type == "commands:get";
        if (isPoll ? errorStatusForPoll.exchange(false) : faultsToAnswer.take(message)) {
            throw std::runtime_error("an error status, as planned");
        }
    }

    void noteCounts(const AgentCounts& idle) {
        AgentCounts& most = totals.most;
        most.threads = std::max(most.threads, idle.threads);
        most.descriptors = std::max(most.descriptors, idle.descriptors);
        most.mappings = std::max(most.mappings, idle.mappings);
        most.resident = std::max(most.resident, idle.resident);
        most.peak = std::max(most.peak, idle.peak);
    }

    RandomOperation makeOperation(const Faults& faults, bool isCollection) {
        Fault fault = randomFault(random, faults);
        if (isCollection && fault == Fault::Cancel) {
            fault = Fault::Death;
        }
        return RandomOperation("operation-" + std::to_string(operations.size()), fault,
                               isCollection, random);
    }

    /// Sends operations, and these commands after them in the same reply. One of them at most is a
    /// collection.
    void sendBatch(const Faults& faults, const std::vector<AgentMessage>& last = {}) {
        begin = operations.size();
        std::vector<AgentMessage> commands;
        const std::uint64_t count = 1 + random.below(kLargestBatch);
        const std::uint64_t collection = random.below(2 * kLargestBatch);
        for (std::uint64_t i = 0; i < count; ++i) {
            operations.push_back(makeOperation(faults, i == collection));
            const RandomOperation& operation = operations.back();
            commands.push_back(operation.command);
            totals.faults += operation.fault == Fault::None ? 0 : 1;
            if (operation.fault == Fault::LostOutput || operation.fault == Fault::LostFinish) {
                ledger.loseFirst(operation.id, operation.hitType);
            } else if (operation.fault == Fault::ErrorStatus) {
                faultsToAnswer.plan(operation.id);
            }
        }
        commands.insert(commands.end(), last.begin(), last.end());
        scene.server().send(commands);
    }

    void expectBatch() {
        cancelHanging();
        for (std::size_t i = begin; i < operations.size(); ++i) {
            expectResult(operations[i]);
        }
    }

    // Only when all others have ended: a cancel ends whatever runs.
    void cancelHanging() {
        bool hanging = false;
        for (std::size_t i = begin; i < operations.size(); ++i) {
            const RandomOperation& operation = operations[i];
            if (operation.fault == Fault::Cancel) {
                hanging = true;
                EXPECT_TRUE(lookUntil([&] {
                    return operation.texts[0] == ledger.sent(operation.id, Channel::Feedback);
                }));
            } else {
                (void)scene.outcome(operation.id);
            }
        }
        if (hanging) {
            scene.server().send(messages::cancel());
        }
    }

    void expectResult(const RandomOperation& operation) {
        SCOPED_TRACE(operation.id + ": " + operation.command.parameter("args") +
                     operation.command.parameter("options"));
        const std::string outcome = scene.outcome(operation.id);
        const bool failed = startsWith(outcome, "error: ");
        if (operation.fault == Fault::LostFinish) {
            EXPECT_TRUE(failed) << outcome;
        } else if (operation.fault != Fault::LostOutput || !failed) {
            // A lost message is noticed by the operation when it was its last; otherwise it goes
            // on.
            EXPECT_EQ(operation.outcome, outcome);
        }
        expectTexts(operation, failed && operation.fault == Fault::LostOutput);
        if (!failed) {
            expectTraces(operation);
        }
    }

    /// @param mayBeCut the operation has failed, and what it had not sent yet was dropped
    void expectTexts(const RandomOperation& operation, bool mayBeCut) {
        for (std::size_t i = 0; i < kChannels.size(); ++i) {
            const std::string& whole = operation.texts[i];
            const std::string sent = ledger.sent(operation.id, kChannels[i]);
            EXPECT_TRUE(mayBeCut ? startsWith(whole, sent) : whole == sent)
                << channelName(kChannels[i]) << ": " << sent.size() << " of " << whole.size()
                << " bytes";
            totals.abandoned += whole.size() - std::min(whole.size(), sent.size());
        }
    }

    void expectTraces(const RandomOperation& operation) {
        std::map<std::string, std::string> arrived;
        for (const UploadRecord& upload : scene.server().uploads()) {
            if (upload.remoteDirectory == operation.id + "/data") {
                arrived[upload.fileName] = readFile(upload.storedPath);
            }
        }
        EXPECT_EQ(operation.traces, arrived);
    }

    void end(Ending ending) {
        switch (ending) {
            case Ending::Stop:
                EXPECT_EQ("exited with 0", scene.stop(agent));
                break;
            case Ending::Interrupt:
                agent.sendSignal(SIGINT);
                EXPECT_EQ("exited with 0", agent.waitForEnd());
                break;
            case Ending::StopWhileBusy:
                sendBatch(kFaultsWithoutCancel, {messages::stop()});
                EXPECT_EQ("exited with 0", agent.waitForEnd());
                expectBatch();
                break;
            case Ending::LostPoll:
                loseConnection();
                kill();
                break;
            case Ending::ServerGone:
                sendBatch(kFaultsOfCollectors);
                (void)scene.outcome(operations[begin].id);
                scene.relay().cut();
                kill();
                ledger.close();
                for (std::size_t i = begin; i < operations.size(); ++i) {
                    expectTexts(operations[i], /*mayBeCut=*/true);
                }
                break;
        }
    }

    // No other fault of the network with it: the poll's is the only complaint that comes.
    void loseConnection() {
        const std::size_t complaints = agent.errors().size();
        ledger.loseNextPoll();
        sendBatch(kFaultsOfCollectors);
        expectBatch();
        EXPECT_TRUE(lookUntil([&] { return agent.errors().size() > complaints; }));
    }

    // An agent whose connection has ended stays until it is ended.
    void kill() {
        EXPECT_TRUE(agent.isRunning());
        agent.sendSignal(SIGTERM);
        EXPECT_EQ("killed by signal 15", agent.waitForEnd());
        EXPECT_TRUE(waitUntilNoChildIsLeft());
    }

    void expectTheEnd(Ending ending) {
        const bool cut = ending == Ending::ServerGone;
        // What was lost is said; nothing else is.
        if (!cut) {
            EXPECT_EQ(ledger.lostRequests() == 0, agent.errors().empty()) << agent.errors();
        }
        for (const std::string& problem : scene.problems()) {
            EXPECT_TRUE(isAllowed(problem, cut)) << problem;
        }
        std::uint64_t written = 0;
        for (const RandomOperation& operation : operations) {
            written += operation.bytes();
        }
        totals.operations += operations.size();
        totals.written += written;
        totals.arrived += ledger.arrivedBytes();
        totals.lost += ledger.lostBytes();
        ++totals.lives;
    }

    // A message that was under way already may follow the end of an operation that has failed; a
    // server that goes hears half of what was said.
    bool isAllowed(const std::string& problem, bool cut) {
        if (cut && (startsWith(problem, "the end: ") ||
                    problem.find(" was cut off") != std::string::npos)) {
            return true;
        }
        if (problem.find(": after the operation's end") == std::string::npos) {
            return false;
        }
        const auto received = scene.server().transcript().at(std::stoul(problem)).message;
        return received.type != "collector:finish" &&
               startsWith(scene.outcome(received.parameter("id")), "error: ");
    }

    /// Operations of which one message is to be answered with an error status.
    class FaultsToAnswer {
    public:
        void plan(const std::string& id) {
            const std::lock_guard lock(mutex);
            ids.push_back(id);
        }

        bool take(const AgentMessage& message) {
            const std::lock_guard lock(mutex);
            return message.parameters.contains("id") &&
                   std::erase(ids, message.parameter("id")) > 0;
        }

    private:
        std::mutex mutex;  // guards ids
        std::vector<std::string> ids;
    };

    Randomness random;
    Moods moods;
    Ledger ledger;
    FaultsToAnswer faultsToAnswer;
    std::atomic<bool> errorStatusForPoll{false};
    AgentScene scene;
    AgentProcess agent;
    std::vector<RandomOperation> operations;
    std::size_t begin = 0;  // of the last batch
    Totals& totals;
};

bool isPowerOfTwo(std::size_t number) {
    return (number & (number - 1)) == 0;
}

}  // namespace

void soak(std::uint64_t seed, std::uint64_t mostBatches,
          const std::function<bool(std::size_t lives)>& next) {
    std::cout << "Soak with seed " << seed << std::endl;
    Table table(
        "Soak with seed " + std::to_string(seed) +
            "; counts are the most that an idle agent had, whose memory may grow by " +
            std::to_string(kAllowance) + " KiB",
        withCounts({"lives", "operations", "faults", "written", "arrived", "lost", "abandoned"}));
    Totals totals;
    const auto addRow = [&] {
        Table::Row row;
        for (const std::uint64_t number :
             {totals.lives, totals.operations, totals.faults, totals.written, totals.arrived,
              totals.lost, totals.abandoned}) {
            row.push_back(std::to_string(number));
        }
        table.add(std::move(row), std::exchange(totals.most, {}));
    };
    while (next(totals.lives) && !testing::Test::HasFailure()) {
        SCOPED_TRACE("life " + std::to_string(totals.lives) + " of seed " + std::to_string(seed));
        RandomLife(seed, totals.lives, totals).run(mostBatches);
        if (isPowerOfTwo(totals.lives)) {
            addRow();
        }
    }
    if (!isPowerOfTwo(totals.lives)) {
        addRow();
    }
    EXPECT_EQ(totals.written, totals.arrived + totals.lost + totals.abandoned);
}

}  // namespace kolvan::test::soak
