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
        // As a service has it; the terminal that a developer may sit at is none of the test's.
        if (const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC)); terminal) {
            (void)::ioctl(terminal.get(), TIOCNOTTY);
        }
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

namespace {

/// A terminal, and what its user does.
class Terminal {
public:
    Terminal() {
        int keys = -1;
        int screen = -1;
        if (::openpty(&keys, &screen, nullptr, nullptr, nullptr) != 0) {
            throw std::runtime_error("openpty");
        }
        keyboard = FileDescriptor(keys);
        line = FileDescriptor(screen);
    }

    /// Makes it the terminal of this process, in a session of its own.
    void become() const {
        (void)::setsid();
        (void)::dup2(line.get(), STDIN_FILENO);
        (void)::ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    }

    void type(const std::string& keys) const {
        (void)::write(keyboard.get(), keys.data(), keys.size());  // a short one fails the test
    }

private:
    FileDescriptor keyboard;
    FileDescriptor line;
};

void block(int number) {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, number);
    (void)::sigprocmask(SIG_BLOCK, &signals, nullptr);
}

bool isPending(int number) {
    sigset_t signals;
    ::sigemptyset(&signals);
    (void)::sigpending(&signals);
    return ::sigismember(&signals, number) == 1;
}

/// Blocks until a process is stopped, or is not.
bool becomesStopped(pid_t process, bool stopped) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream file("/proc/" + std::to_string(process) + "/stat");
        std::string text;
        std::getline(file, text);
        const std::size_t nameEnd = text.rfind(')');
        if (nameEnd != std::string::npos && (text.at(nameEnd + 2) == 'T') == stopped) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST_F(StartedCommandTest, TerminalInterruptsTheCommandAndUs) {
    const Terminal terminal;
    const std::string result = resultOfChild([&] {
        terminal.become();
        block(SIGINT);
        StartedCommand command = shell("echo started > \"$1\"; exec sleep 1000");
        command.release();
        (void)line();
        terminal.type("\x03");  // Ctrl-C
        siginfo_t info{};
        (void)::waitid(P_PID, static_cast<id_t>(command.id()), &info, WEXITED | WNOWAIT);
        return command.terminate(kLongGrace) + (isPending(SIGINT) ? ", and we" : ", but not we");
    });

    EXPECT_EQ("ended by signal 2 (SIGINT), and we", result);
}

TEST_F(StartedCommandTest, TerminalIsReadByTheCommandAndByOthersOfItsPipeline) {
    const Terminal terminal;
    const std::string result = resultOfChild([&] {
        terminal.become();
        StartedCommand command =
            shell("echo started > \"$1\"; read -r word; echo \"$word\" > \"$1\"; exec sleep 1000");
        command.release();
        (void)line();
        terminal.type("to-the-command\n");
        std::string text = line();
        terminal.type("q\n");
        std::array<char, 8> key{};
        text += ::read(STDIN_FILENO, key.data(), key.size()) == 2 ? ", q, " : ", nothing, ";
        return text + command.terminate(kLongGrace);
    });

    EXPECT_EQ("to-the-command, q, ended by signal 15 (SIGTERM)", result);
}

TEST_F(StartedCommandTest, TerminalStopsTheCommandAndUsAndBothGoOn) {
    const Terminal terminal;
    const std::string result = resultOfChild([&] {
        terminal.become();
        (void)std::signal(SIGTTOU, SIG_IGN);  // as a shell has it
        const pid_t job = ::fork();
        if (job == 0) {
            (void)::setpgid(0, 0);
            (void)::tcsetpgrp(STDIN_FILENO, ::getpid());
            (void)std::signal(SIGTTOU, SIG_DFL);
            StartedCommand command = shell("echo $$ > \"$1\"; read -r word; exec sleep 1000");
            command.release();
            std::array<char, 8> key{};
            (void)::read(STDIN_FILENO, key.data(), key.size());
            ::_exit(command.terminate(kLongGrace) == "ended by signal 15 (SIGTERM)" ? 7 : 1);
        }
        const pid_t command = std::stoi(line());
        terminal.type("\x1a");  // Ctrl-Z
        int status = 0;
        (void)::waitpid(job, &status, WUNTRACED);
        std::string text = WIFSTOPPED(status) ? "we stop, " : "we go on, ";
        text += becomesStopped(command, true) ? "it stops, " : "it goes on, ";
        (void)::tcsetpgrp(STDIN_FILENO, job);
        (void)::kill(-job, SIGCONT);  // as "fg" does
        text += becomesStopped(command, false) ? "it goes on, " : "it stays stopped, ";
        terminal.type("one\n");
        terminal.type("other\n");  // each of both reads one
        (void)::waitpid(job, &status, 0);
        return text + (WIFEXITED(status) && WEXITSTATUS(status) == 7 ? "we end" : "we fail");
    });

    EXPECT_EQ("we stop, it stops, it goes on, we end", result);
}

TEST_F(StartedCommandTest, WhatTheCommandHasStartedAtATerminalEndsAndOthersOfThePipelineStay) {
    const Terminal terminal;
    const std::string result = resultOfChild([&] {
        terminal.become();
        const pid_t pager = ::fork();
        if (pager == 0) {
            (void)::pause();
            ::_exit(0);
        }
        const std::string ending = resultOfChild([&] {
            StartedCommand command = shell(
                "sleep 1000 & (trap '' TERM; sleep 1000 & sleep 1000) & echo started > \"$1\"; "
                "exit 5");
            command.release();
            (void)line();
            std::string text = command.terminate(kNoGrace);
            return text + (::waitpid(-1, nullptr, WNOHANG) < 0 ? ", nobody left" : ", some left");
        });
        const bool stays = ::kill(pager, SIGKILL) == 0 && ::waitpid(pager, nullptr, 0) == pager;
        return ending + (stays ? ", pager stays" : ", pager has gone");
    });

    EXPECT_EQ("ended with exit status 5, nobody left, pager stays", result);
}

}  // namespace kolvan::test
