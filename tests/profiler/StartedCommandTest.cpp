#include "companions/profiler/StartedCommand.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/base/FileDescriptor.h"
#include "tests/profiler/support/ChildOfTest.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using namespace std::chrono_literals;
using profiler::ExitCode;
using profiler::Failure;
using profiler::FileDescriptor;
using profiler::StartedCommand;

constexpr std::chrono::milliseconds kLongGrace = 60s;
constexpr std::chrono::milliseconds kNoGrace = 1ms;

/// The collector's program ignores this signal, and the command must not.
class StartedCommandTest : public testing::Test {
protected:
    StartedCommandTest() : former(std::signal(SIGPIPE, SIG_IGN)) {
        if (::mkfifo(fifo.c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo");
        }
        fifoEnd = FileDescriptor(::open(fifo.c_str(), O_RDWR | O_CLOEXEC));
    }
    ~StartedCommandTest() override { (void)std::signal(SIGPIPE, former); }

    /// Blocks until the command has written a line to the FIFO. @return the line
    std::string line() {
        std::string text;
        for (char byte = 0; byte != '\n';) {
            pollfd entry{fifoEnd.get(), POLLIN, 0};
            if (::poll(&entry, 1, 60'000) != 1 || ::read(fifoEnd.get(), &byte, 1) != 1) {
                throw std::runtime_error("The command says nothing.");
            }
            text += byte;
        }
        text.pop_back();
        return text;
    }

    StartedCommand shell(const std::string& script) const {
        return StartedCommand({"/bin/sh", "-c", script, "sh", fifo});
    }

    static void waitForEnd(const StartedCommand& command) {
        siginfo_t info{};
        ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(command.id()), &info, WEXITED | WNOWAIT));
        EXPECT_TRUE(command.hasEnded());
    }

    static bool groupIsLeft(pid_t group) { return ::kill(-group, 0) == 0 || errno != ESRCH; }

    TemporaryDirectory directory;
    const std::string fifo = directory.entry("fifo");
    FileDescriptor fifoEnd;
    const sighandler_t former;
};

}  // namespace

TEST_F(StartedCommandTest, ExitStatusIsTold) {
    StartedCommand command({"/bin/sh", "-c", "exit 3"});
    command.release();
    waitForEnd(command);

    EXPECT_EQ("ended with exit status 3", command.terminate(kLongGrace));
    EXPECT_EQ("ended with exit status 3", command.terminate(kLongGrace));
}

TEST_F(StartedCommandTest, SignalIsToldByNumberAndName) {
    StartedCommand command({"/bin/sh", "-c", "kill -KILL $$"});
    command.release();
    waitForEnd(command);

    EXPECT_EQ("ended by signal 9 (SIGKILL)", command.terminate(kLongGrace));
}

TEST_F(StartedCommandTest, CommandIsFoundInThePath) {
    StartedCommand command({"true"});
    command.release();
    waitForEnd(command);

    EXPECT_EQ("ended with exit status 0", command.terminate(kLongGrace));
}

TEST_F(StartedCommandTest, WhatCannotBeExecutedIsNoTarget) {
    const std::string plain = directory.write("plain", "no program");
    const std::array<std::array<std::string, 2>, 4> commands{
        {{"/no/such/program", "No such file or directory"},
         {"kolvan-no-such-program", "No such file or directory"},
         {"/tmp", "Permission denied"},
         {plain, "Permission denied"}}};
    for (const auto& [program, reason] : commands) {
        StartedCommand command({program});
        try {
            command.release();
            ADD_FAILURE() << program;
        } catch (const Failure& failure) {
            EXPECT_EQ(ExitCode::NoTarget, failure.exitCode());
            EXPECT_EQ("cannot start '" + program + "': " + reason, failure.what());
        }
    }
}

TEST_F(StartedCommandTest, CommandDoesNothingBeforeItsRelease) {
    const std::string trace = directory.entry("trace");
    {
        StartedCommand command({"/bin/sh", "-c", ": > \"$1\"", "sh", trace});
        EXPECT_FALSE(command.hasEnded());
        EXPECT_EQ("ended by signal 15 (SIGTERM)", command.terminate(kLongGrace));
    }

    EXPECT_FALSE(std::ifstream(trace).is_open());
}

TEST_F(StartedCommandTest, CommandThatIsKilledBeforeItsReleaseHasEnded) {
    StartedCommand command({"/bin/sh", "-c", "exit 3"});
    ASSERT_EQ(0, ::kill(command.id(), SIGKILL));
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(command.id()), &info, WEXITED | WNOWAIT));

    command.release();

    EXPECT_TRUE(command.hasEnded());
    EXPECT_EQ("ended by signal 9 (SIGKILL)", command.terminate(kLongGrace));
}

TEST_F(StartedCommandTest, SignalsHaveTheirDefaultActionsAgain) {
    sigset_t blocked;
    sigset_t formerMask;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(0, ::sigprocmask(SIG_BLOCK, &blocked, &formerMask));
    for (const auto& [script, ending] :
         {std::pair{"kill -PIPE $$; exit 3", "ended by signal 13 (SIGPIPE)"},
          std::pair{"kill -USR1 $$; exit 3", "ended by signal 10 (SIGUSR1)"}}) {
        StartedCommand command({"/bin/sh", "-c", script});
        command.release();
        waitForEnd(command);

        EXPECT_EQ(ending, command.terminate(kLongGrace));
    }
    (void)::sigprocmask(SIG_SETMASK, &formerMask, nullptr);
}

TEST_F(StartedCommandTest, BackgroundChildrenEndWithIt) {
    StartedCommand command =
        shell("sleep 1000 & (sleep 1000 & sleep 1000) & echo started > \"$1\"; exit 5");
    command.release();
    EXPECT_EQ("started", line());
    waitForEnd(command);
    EXPECT_TRUE(groupIsLeft(command.id()));

    EXPECT_EQ("ended with exit status 5", command.terminate(kLongGrace));
    EXPECT_FALSE(groupIsLeft(command.id()));
}

TEST_F(StartedCommandTest, CommandThatIgnoresTheFirstSignalIsKilled) {
    StartedCommand command = shell("trap '' TERM; sleep 1000 & echo started > \"$1\"; wait");
    command.release();
    EXPECT_EQ("started", line());

    EXPECT_EQ("ended by signal 9 (SIGKILL)", command.terminate(kNoGrace));
    EXPECT_FALSE(groupIsLeft(command.id()));
}

TEST_F(StartedCommandTest, CommandMayEndInOrder) {
    StartedCommand command = shell(
        "trap 'echo ended > \"$1\"; exit 4' TERM; echo started > \"$1\";"
        "while :; do sleep 0.01; done");
    command.release();
    EXPECT_EQ("started", line());

    EXPECT_EQ("ended with exit status 4", command.terminate(kLongGrace));
    EXPECT_EQ("ended", line());
}

TEST_F(StartedCommandTest, StoppedCommandIsEndedWithoutItsGrace) {
    StartedCommand command = shell("echo started > \"$1\"; kill -STOP $$");
    command.release();
    EXPECT_EQ("started", line());
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(command.id()), &info, WSTOPPED | WNOWAIT));
    EXPECT_FALSE(command.hasEnded());

    EXPECT_EQ("ended by signal 15 (SIGTERM)", command.terminate(kLongGrace));
    EXPECT_FALSE(groupIsLeft(command.id()));
}

TEST_F(StartedCommandTest, EndOfTheObjectEndsTheGroup) {
    pid_t group = 0;
    {
        StartedCommand command = shell("sleep 1000 & echo started > \"$1\"; wait");
        command.release();
        EXPECT_EQ("started", line());
        group = command.id();
        EXPECT_EQ(group, ::getpgid(group));
        EXPECT_NE(::getpgrp(), group);
    }

    EXPECT_FALSE(groupIsLeft(group));
}

/// What a shell with job control gives to its jobs; and what the command, and then we, have of it.
TEST_F(StartedCommandTest, TerminalIsTheCommandsUntilItsEnd) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(0, ::openpty(&master, &slave, nullptr, nullptr, nullptr));
    const FileDescriptor masterEnd(master);
    const FileDescriptor slaveEnd(slave);

    const std::string result = resultOfChild([&] {
        (void)::setsid();
        (void)::dup2(slave, STDIN_FILENO);
        (void)::ioctl(STDIN_FILENO, TIOCSCTTY, 0);
        StartedCommand command = shell("echo started > \"$1\"; exec sleep 1000");
        std::string text = ::tcgetpgrp(STDIN_FILENO) == ::getpgrp() ? "ours, " : "lost, ";
        command.release();
        (void)line();
        text += ::tcgetpgrp(STDIN_FILENO) == command.id() ? "the command's, " : "lost, ";
        (void)::write(master, "\x03", 1);  // Ctrl-C
        siginfo_t info{};
        (void)::waitid(P_PID, static_cast<id_t>(command.id()), &info, WEXITED | WNOWAIT);
        text += command.terminate(kLongGrace);
        return text + (::tcgetpgrp(STDIN_FILENO) == ::getpgrp() ? ", ours" : ", lost");
    });

    EXPECT_EQ("ours, the command's, ended by signal 2 (SIGINT), ours", result);
}

TEST_F(StartedCommandTest, TerminalOfSomebodyElseIsLeftToHim) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(0, ::openpty(&master, &slave, nullptr, nullptr, nullptr));
    const FileDescriptor masterEnd(master);
    const FileDescriptor slaveEnd(slave);

    const std::string result = resultOfChild([&] {
        (void)::setsid();
        (void)::dup2(slave, STDIN_FILENO);
        (void)::ioctl(STDIN_FILENO, TIOCSCTTY, 0);
        const pid_t foreground = ::getpgrp();
        return resultOfChild([&] {
            (void)::setpgid(0, 0);  // as a job in the background
            StartedCommand command = shell("echo started > \"$1\"; exec sleep 1000");
            command.release();
            (void)line();
            std::string text = ::tcgetpgrp(STDIN_FILENO) == foreground ? "left, " : "taken, ";
            text += command.terminate(kLongGrace);
            return text + (::tcgetpgrp(STDIN_FILENO) == foreground ? ", left" : ", taken");
        });
    });

    EXPECT_EQ("left, ended by signal 15 (SIGTERM), left", result);
}

}  // namespace kolvan::test
