#include "tests/faults/Crowd.h"

#include "basekit2/process/DescriptorLimit.h"
#include "tests/soak/SoakScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <utility>

namespace kolvan::test {

namespace fs = std::filesystem;

using testing::IsEmpty;

namespace {

// A crowd of a thousand under a sanitizer takes its time. It only ever fails a test.
constexpr std::chrono::minutes kCrowdPatience{10};

// Of a thousand failures the first ones tell enough.
constexpr std::size_t kMostProblems = 5;

constexpr int kTerminated = 128 + SIGTERM;

void installCrowdCollector(const AgentScene& scene) {
    const fs::path collector = scene.installation.target() / "collector/bin/kolvan-trcap";
    fs::rename(collector, collector.parent_path() / "scripted");
    fs::copy_file(KOLVAN_CROWD_COLLECTOR, collector);
}

DescriptorLimits possible(DescriptorLimits wanted) {
    rlimit own{};
    ::getrlimit(RLIMIT_NOFILE, &own);
    wanted.hard = std::min(wanted.hard, own.rlim_max);
    wanted.soft = std::min(wanted.soft, wanted.hard);
    return wanted;
}

/// What an operation's results are, for the eyes.
std::string textOf(const std::vector<OperationResult>& results) {
    std::string text;
    for (const OperationResult& result : results) {
        text += text.empty() ? "" : " and ";
        text += result.errorMessage ? "\"" + *result.errorMessage + "\""
                                    : std::to_string(result.code.value_or(-1000));
    }
    return text.empty() ? "no end" : text;
}

}  // namespace

const std::vector<DescriptorLimits> kDescriptorLimits{
    {1024, 1'048'576}, {1024, 4096}, {4096, 4096}, {1024, 1024}, {256, 256}};

std::string DescriptorLimits::name() const {
    return "Soft" + std::to_string(soft) + "Hard" + std::to_string(hard);
}

Crowd::Crowd(std::string name, int size, const Leash* leash)
    : name(std::move(name)),
      count(size),
      leashPath(leash != nullptr ? leash->path() : std::string()) {}

Crowd Crowd::withLastOneHeld(std::string name, int size, const Leash& leash) {
    Crowd crowd(std::move(name), size, &leash);
    crowd.isFirstHeld = false;
    return crowd;
}

std::string Crowd::output(int number, const DescriptorLimits& limits) const {
    const std::string text = std::to_string(number);
    return "soft " + std::to_string(limits.soft) + " hard " + std::to_string(limits.hard) +
           "\nbegin " + text + "\nend " + text + "\n";
}

std::vector<AgentMessage> Crowd::commands() const {
    std::vector<AgentMessage> commands;
    for (int number = 0; number < count; ++number) {
        std::string args = "crowd " + std::to_string(number);
        if (!leashPath.empty() && (isFirstHeld || number == count - 1)) {
            args += " " + leashPath;
        }
        commands.push_back(messages::execute(id(number), args));
    }
    return commands;
}

CrowdScene::CrowdScene(const DescriptorLimits& wanted, const SceneSettings& settings)
    : scene(settings), limits(possible(wanted)) {
    // The server is a part of this process and has as many connections as the agent.
    basekit2::process::raise_descriptor_limit();
    installCrowdCollector(scene);
    AgentLaunch launch = soak::launchWithoutLog(scene);
    launch.softDescriptorLimit = limits.soft;
    launch.hardDescriptorLimit = limits.hard;
    process.emplace(launch);
    // The installation has ended when a run has.
    EXPECT_EQ("code 3", scene.run(messages::execute("first", "exit 3")));
    idle = soak::idleCounts(scene, *process);
}

bool CrowdScene::deliver(const std::vector<AgentMessage>& commands) {
    if (!server().waitForHeldPolls()) {
        return false;
    }
    const std::size_t polls = server().count("commands:get");
    server().send(commands);
    return server().waitForMessage("commands:get", polls + 1, kCrowdPatience);
}

bool CrowdScene::waitForFirst(const Crowd& crowd) {
    return server().waitUntil([&](const ServerRecords& records) {
        for (int number = 0; number < crowd.size(); ++number) {
            const OperationRecord* const run = records.operations.find(crowd.id(number));
            if (run != nullptr && run->channel(Channel::Stdout).bytes > 0) {
                return true;
            }
        }
        return false;
    });
}

bool CrowdScene::waitForEnds(const Crowd& crowd) {
    return waitForAllButTheLast(crowd) &&
           server().waitForFinish(crowd.id(crowd.size() - 1), kCrowdPatience).has_value();
}

bool CrowdScene::waitForAllButTheLast(const Crowd& crowd) {
    for (int number = 0; number + 1 < crowd.size(); ++number) {
        if (!server().waitForFinish(crowd.id(number), kCrowdPatience)) {
            ADD_FAILURE() << crowd.id(number) << " does not end";
            return false;
        }
    }
    return true;
}

std::string CrowdScene::problemOf(const Crowd& crowd, int number, Endings endings) {
    const auto run = server().operation(crowd.id(number));
    if (!run || run->results.size() != 1) {
        return textOf(run ? run->results : std::vector<OperationResult>());
    }
    const bool wasCancelled = run->results[0].code == kTerminated ||
                              run->results[0].errorMessage == "Operation was cancelled";
    if (endings == Endings::Cancelled && wasCancelled) {
        return "";
    }
    const std::string wanted = crowd.output(number, limits);
    const std::string& output = run->channel(Channel::Stdout).text;
    const std::string& errors = run->channel(Channel::Stderr).text;
    if (run->results[0].code == crowd.code(number) && output == wanted && errors.empty()) {
        return "";
    }
    return textOf(run->results) + " with '" + output + "' and '" + errors + "'";
}

// That nothing came after an end is told by the problems of the scene.
void CrowdScene::audit(const Crowd& crowd, Endings endings) {
    std::vector<std::string> problems;
    for (int number = 0; number < crowd.size(); ++number) {
        const std::string problem = problemOf(crowd, number, endings);
        if (!problem.empty()) {
            problems.push_back(crowd.id(number) + " has ended with " + problem);
        }
    }
    EXPECT_EQ(0U, problems.size()) << "of " << crowd.size() << " runs";
    problems.resize(std::min(problems.size(), kMostProblems));
    EXPECT_THAT(problems, IsEmpty());
}

void CrowdScene::auditIdleAgent() {
    EXPECT_TRUE(server().waitForHeldPolls());
    soak::AgentCounts now;
    const bool isAsBefore = lookUntil([&] {
        now = soak::countsOf(agent().pid());
        return now.threads == idle.threads && now.descriptors == idle.descriptors;
    });
    EXPECT_TRUE(isAsBefore) << now.threads << " threads and " << now.descriptors
                            << " descriptors after " << idle.threads << " and " << idle.descriptors;
    EXPECT_THAT(childrenOf(agent().pid()), IsEmpty());
}

void CrowdScene::auditEnd(const std::string& ending) {
    EXPECT_EQ("exited with 0", ending);
    EXPECT_EQ("", agent().errors());
    EXPECT_EQ(0U, server().count("error"));
    EXPECT_EQ(1U, server().count("disconnect"));
    std::vector<std::string> problems = scene.problems();
    EXPECT_EQ(0U, problems.size());
    problems.resize(std::min(problems.size(), kMostProblems));
    EXPECT_THAT(problems, IsEmpty());
}

std::vector<pid_t> childrenOf(pid_t process) {
    std::vector<pid_t> children;
    const fs::path threads = "/proc/" + std::to_string(process) + "/task";
    for (const fs::directory_entry& thread : fs::directory_iterator(threads)) {
        std::ifstream list(thread.path() / "children");
        for (pid_t child = 0; list >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

void expectCrowdsToEnd(const DescriptorLimits& limits, int size, int rounds) {
    CrowdScene crowded(limits);
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string name = "round-" + std::to_string(round);
        const auto leash = crowded.scene.makeLeash(name);
        const Crowd crowd = Crowd::withLastOneHeld(name, size, *leash);

        ASSERT_TRUE(crowded.deliver(crowd.commands()));
        ASSERT_TRUE(crowded.waitForAllButTheLast(crowd));
        EXPECT_TRUE(crowded.deliver({messages::execute(name + "-meanwhile", "exit 4")}));
        EXPECT_EQ("code 4", crowded.scene.outcome(name + "-meanwhile"));
        leash->release();

        ASSERT_TRUE(crowded.waitForEnds(crowd));
        crowded.audit(crowd);
        crowded.auditIdleAgent();
    }
    crowded.auditEnd(crowded.scene.stop(crowded.agent()));
}

}  // namespace kolvan::test
