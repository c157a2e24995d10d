#include "operations/RunCommand.h"

#include "tests/operations/AuditedTest.h"
#include "tests/operations/Failure.h"
#include "tests/operations/OwnProcess.h"
#include "tests/operations/ScriptGate.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/TemporaryDirectory.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <sstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cagnt1::operations {
namespace {

constexpr auto kPrintArguments = "for argument; do printf '[%s]' \"$argument\"; done\n";

class RunCommandTest : public AuditedTest {
protected:
    /// An executable script of this name.
    std::string script(const std::string& name, const std::string& body) const {
        const std::string path = directory.write(name, "#!/bin/sh\n" + body);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all |
                                               std::filesystem::perms::others_exec |
                                               std::filesystem::perms::others_read);
        return path;
    }

    const kolvan::test::TemporaryDirectory directory;
};

TEST_F(RunCommandTest, OutputOfSeveralLinesIsReturnedWhole) {
    const std::string program = script("tool", "printf 'tool 1.0\\n\\nbuild 612345\\n  end  \\n'");

    EXPECT_EQ("tool 1.0\n\nbuild 612345\n  end  \n", runCommand(program, {"--version"}));
}

TEST_F(RunCommandTest, OutputWithoutALastLineFeedStaysAsItIs) {
    EXPECT_EQ("a\nb", runCommand("printf", {"'a\\nb'"}));
}

TEST_F(RunCommandTest, LinesOfAnyLengthAreReturnedIntact) {
    std::string lines;
    for (const std::size_t length :
         {1U, 126U, 127U, 128U, 129U, 254U, 255U, 256U, 4095U, 4096U, 65536U, 300000U}) {
        lines += std::string(length, static_cast<char>('a' + length % 26)) + "\n";
    }
    const std::string file = directory.write("lines", lines);

    EXPECT_EQ(lines, runCommand("/bin/cat", {file}));
}

TEST_F(RunCommandTest, NothingPrintedIsAnEmptyText) {
    EXPECT_EQ("", runCommand("/bin/true", {}));
}

TEST_F(RunCommandTest, ExitStatusDoesNotChangeTheResult) {
    EXPECT_EQ("before\n", runCommand(script("failing", "echo before; exit 3"), {}));
}

TEST_F(RunCommandTest, DeathByASignalDoesNotChangeTheResult) {
    const std::string program = script("dying", "echo before; kill -KILL $$");
    std::string output;
    {
        const kolvan::test::CapturedStream complaint(STDERR_FILENO);  // of the shell
        output = runCommand(program, {});
    }

    EXPECT_EQ("before\n", output);
}

TEST_F(RunCommandTest, MissingProgramYieldsNothingAndTheShellComplains) {
    const std::string program = directory.entry("missing");
    std::string output = "not run";
    std::string complaint;
    {
        const kolvan::test::CapturedStream captured(STDERR_FILENO);
        output = runCommand(program, {"--version"});
        complaint = captured.text();
    }

    EXPECT_EQ("", output);
    EXPECT_NE(std::string::npos, complaint.find(program)) << complaint;
}

TEST_F(RunCommandTest, ProgramThatIsNotExecutableYieldsNothing) {
    const std::string program = directory.write("plain", "#!/bin/sh\necho ran\n");
    std::string output = "not run";
    {
        const kolvan::test::CapturedStream captured(STDERR_FILENO);
        output = runCommand(program, {});
    }

    EXPECT_EQ("", output);
}

TEST_F(RunCommandTest, StandardErrorGoesThrough) {
    const std::string program = script("tool", "echo problem >&2; echo result");
    std::string output;
    std::string problems;
    {
        const kolvan::test::CapturedStream captured(STDERR_FILENO);
        output = runCommand(program, {});
        problems = captured.text();
    }

    EXPECT_EQ("result\n", output);
    EXPECT_EQ("problem\n", problems);
}

TEST_F(RunCommandTest, StandardInputIsTheNullDevice) {
    EXPECT_EQ("/dev/null\n", runCommand("readlink", {"/proc/self/fd/0"}));
}

TEST_F(RunCommandTest, EnvironmentIsInherited) {
    ASSERT_EQ(0, ::setenv("KOLVAN_TEST_VALUE", "a  b", 1));

    const std::string output = runCommand("printenv", {"KOLVAN_TEST_VALUE"});

    ::unsetenv("KOLVAN_TEST_VALUE");
    EXPECT_EQ("a  b\n", output);
}

TEST_F(RunCommandTest, WorkingDirectoryIsInherited) {
    EXPECT_EQ(std::filesystem::canonical(directory.path()).string() + "\n", inOwnProcess([&] {
                  std::filesystem::current_path(directory.path());
                  return runCommand("/bin/pwd", {});
              }));
}

TEST_F(RunCommandTest, ProgramIsSearchedInThePathAsTheShellDoes) {
    EXPECT_EQ("found\n", runCommand("echo", {"found"}));
}

TEST_F(RunCommandTest, ArgumentsAreJoinedWithSingleBlanks) {
    EXPECT_EQ("[a][b][c]", runCommand(script("tool", kPrintArguments), {"a", "b", "c"}));
}

TEST_F(RunCommandTest, ArgumentsAreReadByTheShell) {
    const std::string program = script("tool", kPrintArguments);

    EXPECT_EQ("[a][b]", runCommand(program, {"a  b"}));
    EXPECT_EQ("[x y]", runCommand(program, {"'x", "y'"}));
    EXPECT_EQ("[x  y]", runCommand(program, {"'x", "", "y'"}));
    EXPECT_EQ("[value]", runCommand(program, {"$KOLVAN_UNSET", "${KOLVAN_UNSET:-value}"}));
    EXPECT_EQ("[a]b\n", runCommand(program, {"a;", "echo", "b"}));
}

TEST_F(RunCommandTest, AnyPathWillDo) {
    for (const char* name :
         {"blank  s", "quote'",      "'quoted'",  "double\"", "$HOME",    "$(exit)",
          "`exit`",   "a;b",         "a&b",       "a|b",      "a<b>c",    "(a)",
          "{a,b}",    "*",           "?",         "[a]",      "#",        "~",
          "!",        "back\\slash", "new\nline", "tab\t",    "\xff\xfe", "it's a \"$x\";"}) {
        const std::string program =
            script(std::string("dir ") + name + "/tool " + name, kPrintArguments);

        EXPECT_EQ("[--version]", runCommand(program, {"--version"})) << name;
        EXPECT_EQ("", runCommand(program, {})) << name;
    }
}

TEST_F(RunCommandTest, ReturnsOnlyAfterTheEndOfTheCommand) {
    const std::string program = script("tool",
                                       "echo result\n"
                                       "exec >&-\n"
                                       "n=0; while [ $n -lt 30000 ]; do n=$((n + 1)); done\n"
                                       ": > \"$0.ended\"\n");

    EXPECT_EQ("result\n", runCommand(program, {}));
    EXPECT_TRUE(std::filesystem::exists(program + ".ended"));
}

TEST_F(RunCommandTest, ProcessLeftInTheBackgroundDoesNotHoldUpTheResult) {
    ScriptGate gate(directory.entry("gate"));
    ScriptGate end(directory.entry("end"));
    const std::string program = script("tool",
                                       "trap '' PIPE\n"
                                       "(read line < '" +
                                           gate.path() +
                                           "'; echo late; "
                                           "echo > '" +
                                           end.path() +
                                           "') 2> /dev/null &\n"
                                           "echo result\n");

    EXPECT_EQ("result\n", runCommand(program, {}));

    gate.open();
    EXPECT_TRUE(end.waitForScript());
}

TEST_F(RunCommandTest, CommandsMayRunSideBySide) {
    std::vector<std::future<std::string>> outputs;
    for (int number = 0; number < 16; ++number) {
        outputs.push_back(std::async(std::launch::async, [number] {
            return runCommand("seq", {std::to_string(number), std::to_string(number + 5000)});
        }));
    }

    for (int number = 0; number < 16; ++number) {
        std::string expected;
        for (int line = number; line <= number + 5000; ++line) {
            expected += std::to_string(line) + "\n";
        }
        EXPECT_EQ(expected, outputs[static_cast<std::size_t>(number)].get());
    }
}

TEST_F(RunCommandTest, ChildStartsWithDefaultSignalsAndAnEmptyMask) {
    const std::string status = inOwnProcess([] {
        sigset_t mask;
        sigfillset(&mask);
        ::sigprocmask(SIG_BLOCK, &mask, nullptr);
        for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
            (void)std::signal(number, SIG_IGN);
        }
        return runCommand("sed", {"-nE", "'s/^Sig(Blk|Ign):.//p'", "/proc/self/status"});
    });

    std::istringstream masks(status);
    unsigned long long blocked = 1;
    unsigned long long ignored = 1;
    ASSERT_TRUE(masks >> std::hex >> blocked >> ignored) << status;
    EXPECT_EQ(0U, blocked) << status;
    EXPECT_EQ(0U, ignored) << status;
}

TEST_F(RunCommandTest, ChildHasTheStandardDescriptorsOnly) {
    EXPECT_EQ("0 1 2 ", inOwnProcess([] {
                  for (const int number : {20, 21, 50, 200}) {
                      (void)::dup2(STDERR_FILENO, number);  // without close-on-exec
                  }
                  return runCommand("/bin/sh",
                                    {"-c",
                                     "'n=0; while [ $n -lt 256 ]; do "
                                     "if [ -e /proc/$$/fd/$n ]; then printf \"%s \" $n; fi; "
                                     "n=$((n + 1)); done'"});
              }));
}

TEST_F(RunCommandTest, NoDescriptorsLeftIsAFailureThatNamesTheBareProgram) {
    EXPECT_EQ("Failed to pipe output of /opt/my tools/it's", inOwnProcess([] {
                  limitDescriptors(0);
                  return failureOf([] { return runCommand("/opt/my tools/it's", {"--version"}); });
              }));
}

TEST_F(RunCommandTest, NoProcessLeftIsAFailureThatNamesTheBareProgram) {
    EXPECT_EQ("Failed to pipe output of /bin/echo", inOwnProcess([] {
                  dropPrivileges();
                  const rlimit none{0, 0};
                  (void)::setrlimit(RLIMIT_NPROC, &none);
                  return failureOf([] { return runCommand("/bin/echo", {"x"}); });
              }));
}

TEST_F(RunCommandTest, EitherRunsOrFailsCleanlyWithFewDescriptorsLeft) {
    for (std::size_t left = 0; left < 8; ++left) {
        const std::string outcome = inOwnProcess([left] {
            const std::size_t before = openDescriptors();
            rlimit usual{};
            (void)::getrlimit(RLIMIT_NOFILE, &usual);
            limitDescriptors(left);
            std::string output;
            const std::string failure =
                failureOf([&] { return output = runCommand("/bin/echo", {"x"}); });
            (void)::setrlimit(RLIMIT_NOFILE, &usual);
            if (openDescriptors() != before) {
                return "descriptors left open after: " + failure;
            }
            return failure + ", " + output;
        });

        EXPECT_TRUE(outcome == "Failed to pipe output of /bin/echo, " ||
                    outcome == "no failure, x\n")
            << left << ": " << outcome;
        if (left == 7) {
            EXPECT_EQ("no failure, x\n", outcome);
        }
    }
}

}  // namespace
}  // namespace cagnt1::operations
