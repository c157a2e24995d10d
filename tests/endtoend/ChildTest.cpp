#include "tests/endtoend/AgentScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

/// What "describe" told under a name, in order.
std::vector<std::string> described(AgentScene& scene, const std::string& id,
                                   const std::string& name) {
    std::istringstream lines(scene.output(id));
    std::vector<std::string> values;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + ": ")) {
            values.push_back(line.substr(name.size() + 2));
        }
    }
    return values;
}

/// A line of /proc/<process>/limits.
std::string openFilesLimit(pid_t process) {
    std::ifstream limits("/proc/" + std::to_string(process) + "/limits");
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with("Max open files")) {
            std::istringstream words(line.substr(14));
            std::string soft;
            words >> soft;
            return soft;
        }
    }
    return "?";
}

fs::path collectorOf(const AgentScene& scene) {
    return scene.installation.target() / "collector" / "bin" / "kolvan-trcap";
}

TEST(ChildTest, HasTheThreeStandardDescriptorsAndTheFeedbackPipeOnly) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.moreDescriptors = {3, 7, 50};
    AgentProcess agent(launch);
    std::vector<AgentMessage> commands;
    for (int i = 0; i < 20; ++i) {
        commands.push_back(messages::execute("run-" + std::to_string(i), "describe"));
    }

    scene.server().send(commands);

    for (int i = 0; i < 20; ++i) {
        const std::string id = "run-" + std::to_string(i);
        EXPECT_EQ("code 0", scene.outcome(id));
        EXPECT_THAT(
            described(scene, id, "descriptor"),
            ElementsAre("0 /dev/null reads", "1 pipe writes", "2 pipe writes", "3 pipe writes"));
        EXPECT_THAT(described(scene, id, "input"), ElementsAre("0"));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, BelongsToTheAgentsProcessGroup) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("run", "describe")));

    EXPECT_THAT(described(scene, "run", "group"), ElementsAre(std::to_string(agent.pid())));
    EXPECT_THAT(described(scene, "run", "parent"), ElementsAre(std::to_string(agent.pid())));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, StartsWithDefaultDispositionsAndNothingBlocked) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.ignoredSignals = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGPIPE, SIGCHLD, SIGUSR1};
    launch.blockedSignals = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGPIPE, SIGCHLD, SIGUSR2};
    AgentProcess agent(launch);

    EXPECT_EQ("code 0", scene.run(messages::execute("run", "describe")));

    EXPECT_THAT(described(scene, "run", "blocked"), ElementsAre("0000000000000000"));
    EXPECT_THAT(described(scene, "run", "ignored"), ElementsAre("0000000000000000"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, GetsTheDescriptorLimitThatTheAgentWasStartedWith) {
    rlimit ours{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &ours));
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.softDescriptorLimit = 123;
    AgentProcess agent(launch);

    EXPECT_EQ("code 0", scene.run(messages::execute("run", "describe")));

    EXPECT_THAT(described(scene, "run", "descriptor limit"), ElementsAre("123"));
    EXPECT_EQ(std::to_string(ours.rlim_max), openFilesLimit(agent.pid()));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, InheritsTheAgentsEnvironment) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.environment["KOLVAN_MARK"] = "some = value";
    AgentProcess agent(launch);

    EXPECT_EQ("code 0", scene.run(messages::execute("run", "environment KOLVAN_MARK")));

    EXPECT_EQ("some = value\n", scene.output("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, RunsInThePackageDirectory) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.workingDirectory = "/";
    AgentProcess agent(launch);

    EXPECT_EQ("code 0", scene.run(messages::execute("run", "describe")));

    EXPECT_THAT(described(scene, "run", "directory"),
                ElementsAre((scene.installation.target() / "collector").string()));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, DeathByASignalIsReportedAsAShellWould) {
    const std::vector<int> deadly = {SIGHUP,  SIGINT,  SIGQUIT, SIGILL,  SIGABRT, SIGFPE, SIGKILL,
                                     SIGUSR1, SIGSEGV, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM};
    AgentScene scene;
    AgentProcess agent(scene.launch());
    std::vector<AgentMessage> commands;
    for (const int number : deadly) {
        commands.push_back(
            messages::execute(std::to_string(number), "out last die " + std::to_string(number)));
    }

    scene.server().send(commands);

    for (const int number : deadly) {
        EXPECT_EQ("code " + std::to_string(128 + number), scene.outcome(std::to_string(number)));
        EXPECT_EQ("last\n", scene.output(std::to_string(number)));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, ExitCodesAreReportedAsTheyAre) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    for (const int code : {0, 1, 127, 128, 137, 255}) {
        const std::string id = std::to_string(code);
        EXPECT_EQ("code " + id, scene.run(messages::execute(id, "exit " + id)));
    }

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

struct Unstartable {
    std::string name;
    std::string reason;
};

void PrintTo(const Unstartable& unstartable, std::ostream* stream) {
    *stream << unstartable.name;
}

std::string nameOfCase(const testing::TestParamInfo<Unstartable>& caseInfo) {
    return caseInfo.param.name;
}

class UnstartableTest : public testing::TestWithParam<Unstartable> {};

TEST_P(UnstartableTest, GivesTheReasonAsOneLineAndLeavesNoCollectionBehind) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_EQ("code 0", scene.run(messages::execute("before", "out x")));
    const fs::path collector = collectorOf(scene);
    const fs::path kept = scene.installation.surroundings().path() / "kept";
    fs::rename(collector, kept);
    if (GetParam().name == "NotExecutable") {
        fs::copy_file(kept, collector);
        fs::permissions(collector, fs::perms::owner_read);
    } else if (GetParam().name == "NoProgram") {
        std::ofstream(collector) << "MZ this is for another system\n";
        fs::permissions(collector, fs::perms::owner_all);
    }

    EXPECT_EQ("code -1", scene.run(messages::execute("run", "out x")));
    EXPECT_EQ("code -1", scene.run(messages::startCollection("collection", "out\nx", "")));

    const std::string reason = collector.string() + ": " + GetParam().reason + "\n";
    EXPECT_EQ(reason, scene.errors("run"));
    EXPECT_EQ(reason, scene.errors("collection"));
    EXPECT_EQ("", scene.output("run"));
    EXPECT_EQ("error: Collection is not running",
              scene.run(messages::collectionCommand("command", "status")));
    fs::rename(kept, collector);
    EXPECT_EQ("code 4", scene.run(messages::startCollection("after", "exit\n4", "")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(ChildTest, UnstartableTest,
                         testing::Values(Unstartable{"Missing", "No such file or directory"},
                                         Unstartable{"NotExecutable", "Permission denied"},
                                         Unstartable{"NoProgram", "Exec format error"}),
                         nameOfCase);

TEST(ChildTest, HeirThatHoldsThePipesDoesNotHoldUpTheEnd) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 4", scene.run(messages::execute("run", "out before heir " + leash->path() +
                                                               " err between out after "
                                                               "fb end exit 4")));

    EXPECT_EQ("before\nafter\n", scene.output("run"));
    EXPECT_EQ("between\n", scene.errors("run"));
    EXPECT_EQ("end\n", scene.feedback("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    leash->release();
    EXPECT_TRUE(waitUntilNoChildIsLeft());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, CancelTerminatesARun) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    scene.server().send(messages::execute("run", "out x hang"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "<ready/>"));

    scene.server().send(messages::cancel());

    EXPECT_EQ("code 143", scene.outcome("run"));
    EXPECT_TRUE(scene.server().waitForMessage("collector:operations:cancelled"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, CancelEndsARunThatIgnoresTermination) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    scene.server().send(messages::execute("run", "ignore 15 out x hang"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "<ready/>"));

    scene.server().send(messages::cancel());

    // The answer does not wait for the end that follows the grace period.
    EXPECT_TRUE(scene.server().waitForMessage("collector:operations:cancelled"));
    EXPECT_EQ(0U, scene.server().count("collector:finish"));
    EXPECT_EQ("code 137", scene.outcome("run"));
    EXPECT_EQ("x\n", scene.output("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, StoppedAndContinuedChildIsNotTakenForAnEndedOne) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(
        messages::execute("run", "describe fb ready wait " + leash->path() + " exit 6"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "ready\n"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Stdout, "descriptor limit: "));
    const pid_t child = std::stoi(described(scene, "run", "process").at(0));
    ASSERT_EQ(0, ::kill(child, SIGSTOP));
    ASSERT_TRUE(waitUntilStoppedBySignal(child));
    leash->release();
    EXPECT_EQ(0U, scene.server().count("collector:finish"));

    ASSERT_EQ(0, ::kill(child, SIGCONT));

    EXPECT_EQ("code 6", scene.outcome("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(ChildTest, OutputRightBeforeTheEndIsNeverLost) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    std::vector<AgentMessage> commands;
    for (int i = 0; i < 100; ++i) {
        commands.push_back(messages::execute(std::to_string(i), "out a fb b err c"));
    }

    scene.server().send(commands);

    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("code 0", scene.outcome(std::to_string(i)));
        EXPECT_EQ("a\n", scene.output(std::to_string(i)));
        EXPECT_EQ("b\n", scene.feedback(std::to_string(i)));
        EXPECT_EQ("c\n", scene.errors(std::to_string(i)));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
