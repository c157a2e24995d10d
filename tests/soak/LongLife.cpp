#include "basekit2/process/DescriptorLimit.h"
#include "tests/soak/AgentCounts.h"
#include "tests/soak/RecordChecker.h"
#include "tests/soak/SoakScene.h"
#include "tests/soak/Workloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kolvan::test::soak {

namespace fs = std::filesystem;

using testing::IsEmpty;

namespace {

// After so many operations an agent has made what it keeps for ever.
constexpr std::size_t kWarmUp = 100;

// Operations at a time; kWarmUp and every later mark is a multiple.
constexpr std::size_t kBatch = 50;

// How many KiB of memory an agent may have more after its long life than after its warm-up: what
// the allocator holds back.
constexpr std::uint64_t kAllowance = 8U << 10U;

// For each of the uploads at once; the allocator holds back parts of what they had, the more of
// them the machine got going at the same time.
constexpr std::uint64_t kAllowanceForUpload = 16;

// The usual soft limit of open descriptors.
constexpr rlim_t kUsualDescriptors = 1024;

// The allocator makes as many arenas as the machine's processors suggest, and as threads happen to
// meet. With few of them all are there after the warm-up, and mappings can be compared exactly.
AgentLaunch launchWithFewArenas(const AgentScene& scene) {
    AgentLaunch launch = launchWithoutLog(scene);
    launch.environment["MALLOC_ARENA_MAX"] = "8";
    return launch;
}

/// End of a table's title: how much memory the test allows.
std::string bound(std::uint64_t allowance) {
    return "; memory may grow by " + std::to_string(allowance) + " KiB";
}

bool isMark(std::size_t done, std::size_t count) {
    return done == 100 || done == 1000 || done == 10000 || done == count;
}

/// An operation of which everything depends on its number.
struct NumberedOperation {
    explicit NumberedOperation(std::size_t number) : number(number) {}

    std::string id() const { return "run-" + std::to_string(number); }
    std::string text() const { return "text-" + std::to_string(number); }

    AgentMessage command() const {
        static const std::vector<std::string> channels{"fb", "out", "err"};
        return messages::execute(
            id(), channels[number % 3] + " " + text() + " exit " + std::to_string(number % 100));
    }

    void expectResult(AgentScene& scene) const {
        EXPECT_EQ("code " + std::to_string(number % 100), scene.outcome(id()));
        const auto textOf = [&](std::size_t channel) {
            return number % 3 == channel ? text() + "\n" : std::string();
        };
        const auto record = scene.server().operation(id());
        ASSERT_TRUE(record.has_value());
        EXPECT_EQ(textOf(0), record->channel(Channel::Feedback).text);
        EXPECT_EQ(textOf(1), record->channel(Channel::Stdout).text);
        EXPECT_EQ(textOf(2), record->channel(Channel::Stderr).text);
    }

    std::size_t number;
};

void runBatch(AgentScene& scene, std::size_t first) {
    std::vector<AgentMessage> commands;
    for (std::size_t i = first; i < first + kBatch; ++i) {
        commands.push_back(NumberedOperation(i).command());
    }
    scene.server().send(commands);
    for (std::size_t i = first; i < first + kBatch; ++i) {
        NumberedOperation(i).expectResult(scene);
    }
}

std::string startTraces(AgentScene& scene, const std::string& id, std::uint64_t seed,
                        std::size_t count) {
    const std::string options =
        "traces\n" + std::to_string(seed) + "\n" + std::to_string(count) + "\n-r\nresult";
    return scene.run(messages::startCollection(id, options, id));
}

/// The traces that have arrived whole under an id, by their numbers.
std::set<std::string> wholeTraces(const std::vector<UploadRecord>& uploads, const std::string& id,
                                  std::uint64_t seed) {
    std::set<std::string> whole;
    for (const UploadRecord& upload : uploads) {
        if (upload.remoteDirectory != id + "/data") {
            continue;
        }
        RecordStream stream(streamOf(seed, std::stoull(upload.fileName)));
        stream.add(readFile(upload.storedPath));
        EXPECT_EQ("", stream.problem()) << upload.fileName;
        EXPECT_TRUE(whole.insert(upload.fileName).second) << upload.fileName << " came twice";
    }
    return whole;
}

}  // namespace

void runOperations(std::size_t count) {
    AgentScene scene;
    AgentProcess agent(launchWithFewArenas(scene));
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    Table table("One life of " + std::to_string(count) + " operations" + bound(kAllowance),
                withCounts({"operations"}));
    AgentCounts warm;
    for (std::size_t done = kBatch; done <= count && !testing::Test::HasFailure(); done += kBatch) {
        runBatch(scene, done - kBatch);
        if (isMark(done, count)) {
            const AgentCounts now = idleCounts(scene, agent);
            table.add({std::to_string(done)}, now);
            warm = done == kWarmUp ? now : warm;
            expectFlat(warm, now, kAllowance);
            expectNoMoreMappings(warm, now);
        }
    }

    EXPECT_EQ(count, scene.server().count("collector:finish"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void uploadTraces(std::size_t count, std::uint64_t seed) {
    // The server is a part of this process and has as many connections as the agent.
    basekit2::process::raise_descriptor_limit();
    AgentScene scene;
    installProducer(scene);
    AgentLaunch launch = launchWithFewArenas(scene);
    launch.softDescriptorLimit = kUsualDescriptors;
    AgentProcess agent(launch);
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    const std::uint64_t allowance = kAllowance + count * kAllowanceForUpload;
    Table table("Trace files of one collection, seed " + std::to_string(seed) + bound(allowance),
                withCounts({"traces"}));

    AgentCounts warm;
    for (const std::size_t traces : {kWarmUp, count}) {
        const std::string id = "collection-of-" + std::to_string(traces);
        EXPECT_EQ("code 0", startTraces(scene, id, seed, traces));
        EXPECT_EQ(traces, wholeTraces(scene.server().uploads(), id, seed).size());
        const AgentCounts now = idleCounts(scene, agent);
        table.add({std::to_string(traces)}, now);
        warm = traces == kWarmUp ? now : warm;
        expectFlat(warm, now, allowance);
        expectNoMoreMappings(warm, now);
    }

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

void connectAndStop(std::size_t cycles) {
    AgentScene scene;
    const std::vector<std::string> files = scene.installation.leftFiles();
    Table table("Lives in one directory", withCounts({"lives"}));
    std::optional<AgentCounts> first;
    for (std::size_t cycle = 1; cycle <= cycles && !testing::Test::HasFailure(); ++cycle) {
        AgentProcess agent(scene.launch());
        ASSERT_TRUE(scene.server().waitForHeldPolls());
        scene.server().send(NumberedOperation(cycle).command());
        NumberedOperation(cycle).expectResult(scene);
        const AgentCounts now = idleCounts(scene, agent);
        first = first.value_or(now);
        EXPECT_EQ(first->threads, now.threads);
        EXPECT_EQ(first->descriptors, now.descriptors);
        if (cycle == 1 || cycle == 10 || isMark(cycle, cycles)) {
            table.add({std::to_string(cycle)}, now);
        }
        if (cycle % 2 == 0) {
            agent.sendSignal(SIGINT);
            EXPECT_EQ("exited with 0", agent.waitForEnd());
        } else {
            EXPECT_EQ("exited with 0", scene.stop(agent));
        }
        EXPECT_EQ("", agent.errors());
    }

    EXPECT_EQ(cycles, scene.server().count("connect"));
    EXPECT_EQ(cycles, scene.server().count("disconnect"));
    EXPECT_EQ(files, scene.installation.leftFiles());
    EXPECT_THAT(problemsOfAll(scene), IsEmpty());
}

void acceptAgain(std::size_t times) {
    AgentScene scene;
    AgentProcess agent(launchWithFewArenas(scene));
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    Table table("One agent accepted again and again" + bound(kAllowance), withCounts({"times"}));
    // As many at once as there are later, and more: what an agent keeps for its threads, it has.
    for (std::size_t done = 0; done < kWarmUp; done += kBatch) {
        runBatch(scene, done);
    }
    const AgentCounts warm = idleCounts(scene, agent);
    table.add({"0"}, warm);
    for (std::size_t time = 1; time <= times && !testing::Test::HasFailure(); ++time) {
        // The operation waits for the installation that the acceptance begins.
        const NumberedOperation operation(kWarmUp + time);
        scene.server().send({messages::connected(), operation.command()});
        operation.expectResult(scene);
        if (isMark(time, times)) {
            const AgentCounts now = idleCounts(scene, agent);
            table.add({std::to_string(time)}, now);
            expectFlat(warm, now, kAllowance);
            expectNoMoreMappings(warm, now);
        }
    }

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace kolvan::test::soak
