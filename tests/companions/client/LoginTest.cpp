#include "tests/companions/client/ContractServer.h"
#include "tests/companions/client/KolvanRun.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace kolvan::client::test {
namespace {

using kolvan::test::headerOf;
using kolvan::test::RawConnection;
using kolvan::test::TemporaryDirectory;
using Words = std::vector<std::string>;

class LoginTest : public testing::Test {
protected:
    basekit2::UniqueFd input(const std::string& text) const {
        return basekit2::UniqueFd(::open(home.write("input", text).c_str(), O_RDONLY | O_CLOEXEC));
    }

    mode_t modeOf(const std::string& path) const {
        struct stat status {};
        EXPECT_EQ(0, ::stat(home.entry(path).c_str(), &status)) << path;
        return status.st_mode & 07777;
    }

    int logIn(const std::string& address, const std::string& token) const {
        return KolvanRun(home, {"login", address}, {}, input(token + "\n")).wait();
    }

    const TemporaryDirectory home;
};

TEST_F(LoginTest, ServerAndTokenAreKeptForThisUserAlone) {
    const ContractServer server;

    KolvanRun kolvan(home, {"login", server.endpoint() + "/"}, {}, input("kst_one\n"));

    EXPECT_EQ(0, kolvan.wait()) << kolvan.errors();
    EXPECT_EQ("You are ada, engineer. Kept in " + home.entry(".config/kolvan/config.json") + ".\n",
              kolvan.output());
    EXPECT_EQ("{\n  \"server\": \"" + server.endpoint() + "\",\n  \"token\": \"kst_one\"\n}\n",
              kolvan::test::readFile(home.path() / ".config/kolvan/config.json"));
    EXPECT_EQ(0600U, modeOf(".config/kolvan/config.json"));
    EXPECT_EQ(0700U, modeOf(".config/kolvan"));
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(LoginTest, WhatWasKeptIsUsed) {
    const ContractServer server;
    ASSERT_EQ(0, logIn(server.endpoint(), "kst_one"));

    EXPECT_EQ(0, KolvanRun(home, {"agents"}).wait());
    EXPECT_EQ("Bearer kst_one", headerOf(server.rawRequests().back(), "Authorization"));
}

TEST_F(LoginTest, TokenThatWasKeptIsForItsServerOnly) {
    const ContractServer server;
    const ContractServer other;
    ASSERT_EQ(0, logIn(server.endpoint(), "kst_one"));

    KolvanRun kolvan(home, {"agents", "--server", other.endpoint()});

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_EQ("kolvan: No token for " + other.endpoint() +
                  " is known; \"kolvan login URL\" keeps both, or set KOLVAN_SERVER and "
                  "KOLVAN_TOKEN.\n",
              kolvan.errors());
    EXPECT_EQ(Words{}, other.requests());
}

TEST_F(LoginTest, OptionGoesBeforeTheEnvironment) {
    const ContractServer server;
    const std::string file = home.write("token", "kst_file\n");

    EXPECT_EQ(0,
              KolvanRun(home, {"agents", "--token-file", file, "--server", server.endpoint()},
                        {{"KOLVAN_TOKEN", "kst_environment"}, {"KOLVAN_SERVER", "http://[::1]:1"}})
                  .wait());
    EXPECT_EQ("Bearer kst_file", headerOf(server.rawRequests().back(), "Authorization"));
}

TEST_F(LoginTest, TokenThatTheServerRefusesIsNotKept) {
    const ContractServer server(
        [](const std::string&, std::size_t, const std::string&, RawConnection& connection) {
            return connection.send(ContractServer::problem(401, "Log in, or send a token."));
        });

    KolvanRun kolvan(home, {"login", server.endpoint()}, {}, input("kst_wrong\n"));

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_EQ("kolvan: Log in, or send a token.\n", kolvan.errors());
    EXPECT_FALSE(std::filesystem::exists(home.path() / ".config/kolvan/config.json"));
}

TEST_F(LoginTest, TokenIsNotShownOnTheTerminal) {
    const ContractServer server;
    int master = -1;
    int slave = -1;
    ASSERT_EQ(0, ::openpty(&master, &slave, nullptr, nullptr, nullptr));
    const basekit2::UniqueFd terminal(master);
    const basekit2::UniqueFd keyboard(slave);
    ASSERT_EQ(0, ::fcntl(master, F_SETFD, FD_CLOEXEC));
    ASSERT_EQ(0, ::fcntl(slave, F_SETFD, FD_CLOEXEC));

    KolvanRun kolvan(home, {"login", server.endpoint()}, {}, keyboard);
    const std::string question = "Token for " + server.endpoint() + ": ";
    while (kolvan.errors() != question) {
        ::usleep(1000);  // the time limit of the test is the deadline
    }
    ASSERT_EQ(9, ::write(master, "kst_typed", 9));
    ASSERT_EQ(1, ::write(master, "\n", 1));

    EXPECT_EQ(0, kolvan.wait());
    EXPECT_EQ("Bearer kst_typed", headerOf(server.rawRequests().back(), "Authorization"));
    ASSERT_EQ(0, ::fcntl(master, F_SETFL, O_NONBLOCK));
    std::array<char, 100> shown{};
    EXPECT_EQ(-1, ::read(master, shown.data(), shown.size()));
    termios settings{};
    ASSERT_EQ(0, ::tcgetattr(slave, &settings));
    EXPECT_NE(0U, settings.c_lflag & ECHO);
}

TEST_F(LoginTest, NothingKnownIsAnErrorThatHelps) {
    KolvanRun kolvan(home, {"agents"});

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_EQ(
        "kolvan: No server is known; \"kolvan login URL\" keeps both, or set KOLVAN_SERVER and "
        "KOLVAN_TOKEN.\n",
        kolvan.errors());
}

TEST_F(LoginTest, WhatIsNoAddressIsRefused) {
    for (const std::string address : {"profiling.example.com", "ftp://host", "https://",
                                      "http://user@host", "https://host?a"}) {
        KolvanRun kolvan(home, {"login", address}, {}, input("kst_one\n"));

        EXPECT_EQ(1, kolvan.wait()) << address;
        EXPECT_NE(std::string::npos, kolvan.errors().find("is no address of a server"));
    }
}

TEST_F(LoginTest, TokenNeverBecomesAnotherHeader) {
    const ContractServer server;

    KolvanRun kolvan(home, {"agents"},
                     {{"KOLVAN_SERVER", server.endpoint()}, {"KOLVAN_TOKEN", "kst one"}});

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_EQ("kolvan: There is no token in KOLVAN_TOKEN.\n", kolvan.errors());
}

}  // namespace
}  // namespace kolvan::client::test
