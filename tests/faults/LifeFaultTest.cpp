#include "tests/endtoend/AgentScene.h"
#include "tests/support/FailingCall.h"
#include "tests/support/PlainTransfer.h"
#include "tests/support/RedirectedLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::IsEmpty;

#ifdef __SANITIZE_THREAD__
constexpr std::size_t kSanitizerThreads = 1;
#else
constexpr std::size_t kSanitizerThreads = 0;
#endif

bool holds(const fs::path& process, const fs::path& file) {
    std::error_code error;
    for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        if (fs::read_symlink(entry->path(), gone) == file) {
            return true;
        }
    }
    return false;
}

/// Whether a process of the agent's group has the file open.
bool isOpenInAChild(const AgentProcess& agent, const fs::path& file) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string number = entry.path().filename();
        if (number.find_first_not_of("0123456789") == std::string::npos &&
            ::getpgid(std::stoi(number)) == agent.pid() && holds(entry.path(), file)) {
            return true;
        }
    }
    return false;
}

void writeInto(const std::string& pipe, const std::string& text) {
    const basekit2::UniqueFd end(::open(pipe.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(static_cast<ssize_t>(text.size()), ::write(end.get(), text.data(), text.size()));
}

TEST(LifeFaultTest, VersionQueryThatOutlivesTheStopIsWaitedFor) {
    AgentScene scene;
    const fs::path version = scene.installation.target() / "collector/bin/version.txt";
    fs::remove(version);
    Leash leash(version);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    ASSERT_TRUE(lookUntil([&] { return isOpenInAChild(agent, version); }));

    agent.sendSignal(SIGINT);

    // Only the main thread, which is at the end of the program, and the two of the query are left.
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    ASSERT_TRUE(lookUntil([&] { return agent.threads().size() == 3 + kSanitizerThreads; }));
    ASSERT_TRUE(agent.isRunning());
    writeInto(leash.path(), "Scripted collector\nbuild 1\n");
    leash.release();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.server().packageRequests(), IsEmpty());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

/// A run and a collection of an agent to which something happens that it must not notice.
void expectUndisturbedLife(AgentScene& scene, AgentProcess& agent) {
    EXPECT_EQ("code 5", scene.run(messages::execute("run", "lines out 200 x err e fb f exit 5")));
    EXPECT_EQ(numberedLines(200, "x"), scene.output("run"));
    EXPECT_EQ("e\n", scene.errors("run"));
    EXPECT_EQ("f\n", scene.feedback("run"));
    EXPECT_EQ("code 3", scene.run(messages::startCollection(
                            "collect", "-r\nx\nout\nhello\ntrace\ndata.0/a\none\nexit\n3", "t")));
    EXPECT_EQ("hello\n", scene.output("collect"));
    EXPECT_EQ(1U, scene.server().uploads().size());
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

class InterruptedCallTest : public testing::TestWithParam<std::string> {};

// Not every second one: libcurl may always ask twice, and would never get an answer.
TEST_P(InterruptedCallTest, IsRepeated) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    const FailingCall failure(GetParam(), EINTR, 1, 5);
    failure.applyTo(launch);
    AgentProcess agent(launch);

    expectUndisturbedLife(scene, agent);

    EXPECT_TRUE(failure.reached());
}

INSTANTIATE_TEST_SUITE_P(LifeFaultTest, InterruptedCallTest,
                         testing::Values("read", "write", "poll", "ppoll", "waitid"),
                         [](const auto& call) { return call.param; });

TEST(LifeFaultTest, TimeOfDayMayJump) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    const FailingCall jumps("clock", EINVAL, 1, 2);
    jumps.applyTo(launch);
    AgentProcess agent(launch);

    expectUndisturbedLife(scene, agent);

    EXPECT_TRUE(jumps.reached());
}

TEST(LifeFaultTest, LogMayGoToAFullDevice) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    redirectLog(launch, scene.installation, "/dev/full");
    AgentProcess agent(launch);

    expectUndisturbedLife(scene, agent);
}

/// Blocks until a named pipe takes nothing more.
bool waitUntilFull(const std::string& fifo) {
    const basekit2::UniqueFd end(::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    return lookUntil([&] {
        pollfd room{end.get(), POLLOUT, 0};
        return ::poll(&room, 1, 0) == 0;
    });
}

/// Reads a log until the agent that writes it has closed it.
std::string readToEnd(int pipe) {
    std::string log;
    std::array<char, 4096> piece{};
    for (ssize_t count = 1; count > 0;) {
        count = ::read(pipe, piece.data(), piece.size());
        log.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return log;
}

std::size_t linesThatBeginWith(const std::string& beginning, const std::string& log) {
    std::size_t count = log.rfind(beginning, 0) == 0 ? 1 : 0;
    for (std::size_t at = 0; (at = log.find("\n" + beginning, at)) != std::string::npos; ++at) {
        ++count;
    }
    return count;
}

TEST(LifeFaultTest, SlowReaderOfTheLogHoldsTheAgentUpAndLosesNothing) {
    constexpr std::uint64_t kBytes = 1'000'000;
    AgentScene scene;
    const std::string fifo = scene.installation.surroundings().entry("log");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const basekit2::UniqueFd reader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    AgentLaunch launch = scene.launch();
    redirectLog(launch, scene.installation, fifo);
    AgentProcess agent(launch);
    scene.server().send(
        messages::execute("run", "flood out " + std::to_string(kBytes) + " exit 5"));
    ASSERT_TRUE(waitUntilFull(fifo));
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.isRunning());

    ASSERT_EQ(0, ::fcntl(reader.get(), F_SETFL, 0));
    const std::string log = readToEnd(reader.get());

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 5", scene.outcome("run"));
    EXPECT_TRUE(floodText(kBytes) == scene.output("run"));
    EXPECT_EQ(scene.server().transcript().size(), linesThatBeginWith("out: ", log));
    EXPECT_EQ(scene.server().transcript().size(), linesThatBeginWith("in:  ", log));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(LifeFaultTest, CollectionEndsAndReportsThoughTheConnectionIsLost) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    const auto isPoll = [](const std::string& request) {
        return request.find("\"commands:get\"") != std::string::npos;
    };
    scene.relay().treat([&](const std::string& request) {
        return isPoll(request) ? Treatment::Reset : Treatment::Pass;
    });

    scene.server().send(messages::startCollection(
        "run", "-r\nx\nout\nearly\nwait\n" + leash->path() + "\nout\nlate\ntrace\ndata/a\none",
        "t"));

    ASSERT_TRUE(agent.waitForErrors(reportOfAReset()));
    leash->release();
    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_EQ("early\nlate\n", scene.output("run"));
    EXPECT_EQ(1U, scene.server().uploads().size());
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ(reportOfAReset(), agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
