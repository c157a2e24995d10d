#include "companions/server/serve/Successor.h"

#include "basekit2/UniqueFd.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::server {
namespace {

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::set<std::string> descriptorsOf(const std::string& process) {
    std::set<std::string> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + process + "/fd")) {
        // A listing of one's own has the directory itself in it, which is closed by now.
        numbers.insert(entry.path().filename());
    }
    return numbers;
}

class SuccessorTest : public testing::Test {
protected:
    /// Starts a shell that does this, in the place of a server; the "socket" is a file.
    pid_t start(const std::string& script) const {
        return startSuccessor("/bin/sh", {"server", "-c", script, place.path().string()},
                              {socket.get()});
    }

    static int endOf(pid_t process) {
        int status = 0;
        EXPECT_EQ(process, ::waitpid(process, &status, 0));
        return status;
    }

    std::string content(const std::string& name) const { return contentOf(place.path() / name); }

    test::TemporaryDirectory place;
    const basekit2::UniqueFd socket{
        ::open((place.path() / "socket").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
};

TEST_F(SuccessorTest, GetsTheSocketAsTheServiceManagerWouldPassIt) {
    const pid_t successor =
        start("echo \"$LISTEN_FDS\" >&3; test \"$LISTEN_PID\" = $$ && printf 1 >&4");

    EXPECT_EQ(0, endOf(successor));
    EXPECT_EQ("1\n", content("socket"));
    EXPECT_EQ(0, ::fcntl(socket.get(), F_GETFD) & ~FD_CLOEXEC);
}

TEST_F(SuccessorTest, ServesOnWhileThePredecessorGoesOn) {
    const pid_t successor = start("printf 1 >&4; exec sleep 1000");

    EXPECT_EQ(0, ::kill(successor, SIGTERM));
    EXPECT_EQ(SIGTERM, WTERMSIG(endOf(successor)));
}

TEST_F(SuccessorTest, GetsNoDescriptorBesideItsOwnAndThoseThatPassThroughEveryProcess) {
    std::set<std::string> expected = {"3", "4"};
    for (const std::string& number : descriptorsOf("self")) {
        if (::fcntl(std::stoi(number), F_GETFD) == 0) {
            expected.insert(number);
        }
    }

    // Only while it stands still has it no file open for a moment, a library or a redirection.
    const pid_t successor = start("printf 1 >&4; kill -STOP $$");
    int status = 0;
    ASSERT_EQ(successor, ::waitpid(successor, &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));

    EXPECT_EQ(expected, descriptorsOf(std::to_string(successor)));
    ::kill(successor, SIGKILL);
    endOf(successor);
}

TEST_F(SuccessorTest, OneThatEndsBeforeItServesIsToldWithItsStatus) {
    try {
        start("exit 7");
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("The successor has ended before it served, with exit status 7", error.what());
    }
}

TEST_F(SuccessorTest, OneThatIsKilledBeforeItServesIsToldWithTheSignal) {
    try {
        start("kill -KILL $$");
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("The successor has ended before it served, by signal 9", error.what());
    }
}

TEST_F(SuccessorTest, ProgramThatIsMissingIsToldWithTheReason) {
    try {
        startSuccessor("/nowhere/server", {"server"}, {socket.get()});
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(ENOENT, error.code().value());
    }
}

TEST_F(SuccessorTest, NumberIsToldWhileItIsThatOfTheSuccessor) {
    std::vector<pid_t> told;
    const auto tell = [&](pid_t process) {
        told.push_back(process);
        EXPECT_TRUE(process == 0 || ::kill(process, 0) == 0);
        EXPECT_TRUE(process != 0 || ::kill(told.front(), 0) == 0);  // not reaped yet
    };
    EXPECT_THROW(startSuccessor("/bin/sh", {"server", "-c", "exit 7"}, {socket.get()}, tell),
                 std::runtime_error);
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(0, told.back());

    told.clear();
    const pid_t successor =
        startSuccessor("/bin/sh", {"server", "-c", "printf 1 >&4"}, {socket.get()}, tell);
    endOf(successor);
    EXPECT_EQ(std::vector{successor}, told);
}

TEST_F(SuccessorTest, HandsOnNothingOfItsOwnInheritance) {
    ::setenv("LISTEN_FDNAMES", "old", 1);
    ::setenv("LISTEN_PID", "1", 1);

    endOf(start("env | grep -c '^LISTEN_' >\"$0/count\"; printf 1 >&4"));

    ::unsetenv("LISTEN_FDNAMES");
    ::unsetenv("LISTEN_PID");
    EXPECT_EQ("2\n", content("count"));
}

TEST_F(SuccessorTest, TellsItsPredecessorThatItServes) {
    ::setenv(kReadyVariable, std::to_string(::dup(socket.get())).c_str(), 1);

    tellPredecessor();

    ::unsetenv(kReadyVariable);
    EXPECT_EQ("1", content("socket"));
}

TEST_F(SuccessorTest, FirstServerHasNobodyToTell) {
    ::unsetenv(kReadyVariable);

    tellPredecessor();

    EXPECT_EQ("", content("socket"));
}

}  // namespace
}  // namespace kolvan::server
