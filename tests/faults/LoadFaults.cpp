#include "tests/faults/LoadFaults.h"

#include "tests/endtoend/AgentScene.h"
#include "tests/support/FailingCall.h"
#include "tests/support/RedirectedLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kolvan::test {

namespace {

namespace fs = std::filesystem;

using testing::IsEmpty;

// For what takes long, and longer under a sanitizer. It only ever fails a test.
constexpr std::chrono::minutes kLongWait{30};

constexpr rlim_t kUsualDescriptorLimit = 1024;

std::size_t descriptorsOf(const AgentProcess& agent) {
    const fs::directory_iterator entries("/proc/" + std::to_string(agent.pid()) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

constexpr const char* kNoThread = "Resource temporarily unavailable";

// The numbers of a flood's lines begin anew after so many bytes.
constexpr std::uint64_t kFloodPeriod = 80'000'000;

/// Compares what comes on a channel with what "flood" writes, which the channels share.
class FloodChecker {
public:
    void check(std::string_view text, std::string_view flood) {
        while (!text.empty() && whole) {
            const std::size_t place = received % flood.size();
            const std::string_view part = text.substr(0, flood.size() - place);
            whole = flood.substr(place, part.size()) == part;
            received += part.size();
            text.remove_prefix(part.size());
        }
    }

    bool whole = true;
    std::uint64_t received = 0;
};

/// Puts a script in the collector's place that floods all channels by three runs of it at once.
void makeCollectorFloodAllChannels(const AgentScene& scene, std::uint64_t bytes) {
    const fs::path collector = scene.installation.target() / "collector/bin/kolvan-trcap";
    const fs::path flooder = collector.parent_path() / "flooder";
    fs::rename(collector, flooder);
    std::string script = "#!/bin/sh\n[ \"$1\" = --version ] && exec cat \"${0%/*}/version.txt\"\n";
    script += "for descriptor; do :; done\n";
    for (const char* channel : {"out", "err", "fb"}) {
        script += "'" + flooder.string() + "' flood " + channel + " " + std::to_string(bytes) +
                  " --ui-output-format xml --ui-output-fd $descriptor &\n";
    }
    scene.installation.surroundings().write("agent/target/collector/bin/kolvan-trcap",
                                            script + "wait\n");
    fs::permissions(collector, fs::perms::owner_all);
}

AgentSettings settingsFor(AgentScene& scene) {
    AgentSettings settings;
    settings.serverEndpoint = scene.server().endpoint();
    settings.buildVersion = "2";
    return settings;
}

package::Content build2() {
    package::Content content;
    content.version = "build 2\n";
    return content;
}

}  // namespace

void expectEveryLaunchAnswered(int launches, std::uint64_t firstFailingThread) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    const FailingCall shortage("thread", EAGAIN, firstFailingThread, 1);
    shortage.applyTo(launch);
    AgentProcess agent(launch);
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    std::vector<AgentMessage> commands;
    for (int i = 0; i < launches; ++i) {
        commands.push_back(messages::execute(std::to_string(i), "out x exit 5"));
    }

    scene.server().send(commands);
    scene.server().send(messages::stop());

    ASSERT_TRUE(lookUntil([&] { return !agent.isRunning(); }));
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_TRUE(shortage.reached());
    std::size_t launchesThatFailed = 0;
    for (int i = 0; i < launches; ++i) {
        const auto operation = scene.server().operation(std::to_string(i));
        ASSERT_TRUE(operation.has_value());
        ASSERT_EQ(1U, operation->results.size()) << "ends of " << i;
        if (operation->results[0].errorMessage) {
            EXPECT_EQ(kNoThread, operation->results[0].errorMessage);
            ++launchesThatFailed;
        }
    }
    EXPECT_LT(0U, launchesThatFailed);
    EXPECT_EQ(launchesThatFailed, scene.server().count("error"));
    for (const ReceivedMessage& received : scene.server().transcript()) {
        if (received.message.type == "error") {
            EXPECT_EQ(kNoThread, received.message.parameter("errorMessage"));
        }
    }
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void expectQuickPollsToLeaveNothing(std::size_t polls) {
    SceneSettings settings;
    settings.server.pollTimeout = std::chrono::milliseconds::zero();
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    EXPECT_EQ("code 0", scene.run(messages::execute("first", "out x")));
    ASSERT_TRUE(scene.server().waitForMessage("commands:get", polls / 10));
    const std::size_t threads = agent.threads().size();
    const std::size_t descriptors = descriptorsOf(agent);

    ASSERT_TRUE(scene.server().waitForMessage("commands:get", polls, kLongWait));

    // One of them is that of the request that is under way, or is not.
    EXPECT_TRUE(lookUntil([&] { return agent.threads().size() <= threads; }));
    EXPECT_TRUE(lookUntil([&] { return descriptorsOf(agent) <= descriptors; }));
    EXPECT_EQ("code 4", scene.run(messages::execute("last", "exit 4")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void expectFloodToArrive(std::uint64_t bytesOfEachChannel) {
    const std::string flood = floodText(std::min(bytesOfEachChannel, kFloodPeriod));
    std::array<FloodChecker, 3> checkers;
    SceneSettings settings;
    settings.server.keepOutput = false;
    settings.server.observer.onOutput = [&](const OutputChunk& chunk) {
        checkers.at(static_cast<std::size_t>(chunk.channel)).check(chunk.text, flood);
    };
    AgentScene scene(settings);
    makeCollectorFloodAllChannels(scene, bytesOfEachChannel);
    AgentLaunch launch = scene.launch();
    redirectLog(launch, scene.installation, "/dev/null");
    AgentProcess agent(launch);

    scene.server().send(messages::execute("run", ""));

    const auto result = scene.server().waitForFinish("run", kLongWait);
    ASSERT_TRUE(result);
    EXPECT_EQ(0, result->code);
    for (const FloodChecker& checker : checkers) {
        EXPECT_TRUE(checker.whole);
        EXPECT_EQ(bytesOfEachChannel, checker.received);
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

void expectSingleBytesToArrive(std::uint64_t bytes) {
    AgentScene scene;
    const fs::path collector = scene.installation.target() / "collector/bin/kolvan-trcap";
    fs::remove(collector);
    scene.installation.surroundings().write(
        "agent/target/collector/bin/kolvan-trcap",
        "#!/bin/sh\n[ \"$1\" = --version ] && exec cat \"${0%/*}/version.txt\"\n"
        "seq -f %07g 0 9999999 | head -c " +
            std::to_string(bytes) + " | dd bs=1 status=none\n");
    fs::permissions(collector, fs::perms::owner_all);
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("run", "")));

    EXPECT_TRUE(floodText(bytes) == scene.output("run"));
    EXPECT_EQ("", scene.errors("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void expectRunsAtOnceToEnd(int runs) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    std::vector<AgentMessage> commands;
    for (int i = 0; i < runs; ++i) {
        const std::string text = std::to_string(i);
        commands.push_back(messages::execute(
            text, "out " + text + " err " + text + " fb " + text + " wait " + leash->path() +
                      " out late exit " + std::to_string(i % 100)));
    }

    scene.server().send(commands);

    for (int i = 0; i < runs; ++i) {
        const std::string text = std::to_string(i);
        ASSERT_TRUE(scene.server().waitForOutput(text, Channel::Feedback, text + "\n"));
    }
    leash->release();
    for (int i = 0; i < runs; ++i) {
        const std::string text = std::to_string(i);
        EXPECT_EQ("code " + std::to_string(i % 100), scene.outcome(text));
        EXPECT_EQ(text + "\nlate\n", scene.output(text));
        EXPECT_EQ(text + "\n", scene.errors(text));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void expectTracesToArrive(int traces) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.softDescriptorLimit = kUsualDescriptorLimit;
    AgentProcess agent(launch);
    std::string options = "-r\nx";
    for (int i = 0; i < traces; ++i) {
        options += "\ntrace\ndata.0/" + std::to_string(i) + "\ntrace " + std::to_string(i);
    }

    scene.server().send(messages::startCollection("run", options, "t"));

    const auto result = scene.server().waitForFinish("run", kLongWait);
    ASSERT_TRUE(result);
    EXPECT_EQ(0, result->code);
    EXPECT_EQ(static_cast<std::size_t>(traces), scene.server().uploads().size());
    for (const auto& upload : scene.server().uploads()) {
        EXPECT_EQ("trace " + upload.storedPath.filename().string(), readFile(upload.storedPath));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void expectKilledInstallationsToBeMended(std::uint64_t step) {
    bool killed = true;
    for (std::uint64_t number = 1; killed; number += step) {
        SCOPED_TRACE("killed at write " + std::to_string(number));
        AgentScene scene;
        scene.installation.configure(settingsFor(scene).text());
        scene.offer("package-x86.tar", build2());
        scene.offer("package-x64.tar", build2());
        AgentLaunch launch = scene.launch();
        const FailingCall kill("write", FailingCall::kKill, number);
        kill.applyTo(launch);
        scene.server().send(messages::stop());
        {
            AgentProcess first(launch);
            const std::string ending = first.waitForEnd();
            killed = ending == "killed by signal 9";
            EXPECT_EQ(killed ? "killed by signal 9" : "exited with 0", ending);
            EXPECT_EQ(killed, kill.reached());
        }
        scene.server().releasePolls();

        AgentProcess second(scene.launch());
        EXPECT_EQ("code 7", scene.run(messages::execute("run", "out x exit 7")));
        EXPECT_EQ("x\n", scene.output("run"));
        EXPECT_EQ("exited with 0", scene.stop(second));
        EXPECT_EQ("build 2\n", readFile(scene.installation.target() / "collector/bin/version.txt"));
        EXPECT_THAT(leftChildren(), IsEmpty());
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

void expectLivesToSurviveStorms(int lives) {
    for (int life = 0; life < lives && !testing::Test::HasFailure(); ++life) {
        AgentScene scene;
        AgentProcess agent(scene.launch());
        ASSERT_TRUE(scene.server().waitForHeldPolls());
        std::vector<AgentMessage> commands;
        for (int i = 0; i < 10; ++i) {
            commands.push_back(messages::execute(std::to_string(i), "lines out 100 x exit 7"));
        }
        scene.server().send(commands);
        ASSERT_TRUE(scene.server().waitForMessage("commands:get", 2));

        const auto storm = [&](const std::stop_token& calm) {
            const std::vector<pid_t> threads = agent.threads();
            while (!calm.stop_requested()) {
                agent.sendSignal(SIGINT);  // it is not reaped before the storm is over
                for (const pid_t thread : threads) {
                    (void)agent.sendSignalToThread(thread, SIGINT);
                }
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        };
        {
            const std::jthread weather(storm);
            EXPECT_TRUE(lookUntil([&] { return !agent.isRunning(); }));
        }

        EXPECT_EQ("exited with 0", agent.waitForEnd());
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ("code 7", scene.outcome(std::to_string(i)));
            EXPECT_EQ(numberedLines(100, "x"), scene.output(std::to_string(i)));
        }
        EXPECT_EQ(1U, scene.server().count("disconnect"));
        EXPECT_EQ("", agent.errors());
        EXPECT_THAT(scene.problems(), IsEmpty());
    }
}

}  // namespace kolvan::test
