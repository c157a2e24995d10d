#include "companions/server/accounts/Logins.h"
#include "companions/server/cli/FirstLogin.h"
#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/cli/ServerProgram.h"
#include "tests/companions/server/support/SetClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace kolvan::server {
namespace {

namespace fs = std::filesystem;

using test::runServer;
using test::ServerAnswer;
using testing::MatchesRegex;

constexpr char kPassword[] = "correct horse battery";
constexpr char kOtherPassword[] = "wrong horse battery";

class ServerCommandsTest : public testing::Test {
protected:
    /// Runs a command on the data directory of the test.
    ServerAnswer run(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.end(), {"--data", data});
        return runServer(arguments, input);
    }

    ServerAnswer addUser(const std::string& name, const std::string& role,
                         const std::string& input = std::string(kPassword) + "\n") {
        return run({"user", "add", name, "--role", role}, input);
    }

    /// The store, as a server has it open meanwhile.
    SqliteStore& store() {
        if (!opened) {
            opened = std::make_unique<SqliteStore>(data + "/kolvan.sqlite", clock);
        }
        return *opened;
    }

    bool mayLogIn(const std::string& name, const std::string& password) {
        const auto user = store().accounts().findUser(name);
        return user && Passwords().matches(password, user->passwordHash);
    }

    const test::TemporaryDirectory directory;
    const std::string data = directory.entry("data");
    const test::SetClock clock;
    std::unique_ptr<SqliteStore> opened;
};

void expectDone(const ServerAnswer& answer, const std::string& notes) {
    EXPECT_EQ(0, answer.exitCode);
    EXPECT_EQ(notes, answer.errors);
}

void expectFailure(const ServerAnswer& answer, const std::string& text) {
    EXPECT_EQ(1, answer.exitCode);
    EXPECT_EQ("", answer.output);
    EXPECT_EQ("kolvan-server: " + text + "\n", answer.errors);
}

TEST_F(ServerCommandsTest, DataDirectoryIsMadeForItsUserAlone) {
    expectDone(addUser("anna", "viewer"), "User anna (viewer) was added.\n");

    EXPECT_EQ(fs::perms::owner_all, fs::status(data).permissions());
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
              fs::status(data + "/kolvan.sqlite").permissions());
}

TEST_F(ServerCommandsTest, DataDirectoryThatIsOpenToOthersIsRefused) {
    fs::create_directory(data);
    fs::permissions(data, fs::perms(0750));

    expectFailure(run({"user", "list"}),
                  data +
                      " is open to others (mode 0750): the server's data are for its user alone, "
                      "mode 0700");
    EXPECT_TRUE(fs::is_empty(data));
}

TEST_F(ServerCommandsTest, DataDirectoryThatIsAFileIsRefused) {
    directory.write("data", "");

    expectFailure(run({"user", "list"}), data + " is no directory");
}

TEST_F(ServerCommandsTest, UsualPlaceIsBelowTheStateDirectory) {
    const std::string home = directory.entry("home");
    const std::string state = directory.entry("state");

    EXPECT_EQ(0, runServer({"user", "list"}, "", {"HOME=" + home}).exitCode);
    EXPECT_EQ(
        0, runServer({"user", "list"}, "", {"HOME=" + home, "XDG_STATE_HOME=" + state}).exitCode);
    const ServerAnswer nowhere = runServer({"user", "list"}, "", {"XDG_STATE_HOME=relative"});

    EXPECT_TRUE(fs::exists(home + "/.local/state/kolvan-server/kolvan.sqlite"));
    EXPECT_TRUE(fs::exists(state + "/kolvan-server/kolvan.sqlite"));
    expectFailure(nowhere, "There is no home directory to keep data in: use --data");
}

TEST_F(ServerCommandsTest, PasswordIsTheFirstLineOfStandardInput) {
    addUser("anna", "viewer", std::string(kPassword) + "\nmore\n");
    addUser("bert", "viewer", kPassword);

    EXPECT_TRUE(mayLogIn("anna", kPassword));
    EXPECT_TRUE(mayLogIn("bert", kPassword));
}

TEST_F(ServerCommandsTest, BadPasswordAddsNobody) {
    const ServerAnswer answer = addUser("anna", "viewer", "short\n");

    EXPECT_EQ(2, answer.exitCode);
    EXPECT_EQ("kolvan-server: A password has 12 characters or more\nTry --help.\n", answer.errors);
    expectFailure(addUser("anna", "viewer", std::string(5000, 'x')),
                  "The line with the password does not end");
    EXPECT_EQ("", run({"user", "list"}).output);
}

TEST_F(ServerCommandsTest, UsersAreListedChangedAndRemoved) {
    addUser("boss", "administrator");
    addUser("anna", "engineer");

    expectDone(run({"user", "password", "anna"}, kOtherPassword),
               "User anna has a new password.\n");

    EXPECT_TRUE(mayLogIn("anna", kOtherPassword));
    EXPECT_FALSE(mayLogIn("anna", kPassword));
    EXPECT_THAT(run({"user", "list"}).output, MatchesRegex("anna\tengineer\t[-0-9T:.]+Z\n"
                                                           "boss\tadministrator\t[-0-9T:.]+Z\n"));
    expectDone(run({"user", "remove", "anna"}), "User anna was removed.\n");
    expectFailure(run({"user", "remove", "anna"}), "There is no user with the name anna");
    expectFailure(run({"user", "password", "anna"}, kPassword),
                  "There is no user with the name anna");
    expectFailure(run({"user", "remove", "boss"}), "Without boss nobody could add users any more");
    expectFailure(addUser("boss", "viewer"), "There is a user with the name boss");
}

TEST_F(ServerCommandsTest, TokenAloneIsOnStandardOutput) {
    const ServerAnswer api = run({"token", "add", "ci", "--role", "viewer"});
    const ServerAnswer agent = run({"agent-token", "add", "web 1"});
    const ServerAnswer shared = run({"agent-token", "add", "all", "--shared"});

    expectDone(api, "This is the token ci (viewer). It is shown this once.\n");
    expectDone(agent, "This is the \"accessToken\" for the agent web 1. It is shown this once.\n");
    expectDone(shared,
               "This is the \"accessToken\" for agents that share all. It is shown this once.\n");
    EXPECT_THAT(api.output, MatchesRegex("kst_[-_A-Za-z0-9]{43}\n"));
    EXPECT_THAT(agent.output, MatchesRegex("kat_[-_A-Za-z0-9]{43}\n"));
    const auto hashOf = [](const std::string& line) {
        return sha256(line.substr(0, line.size() - 1));
    };
    EXPECT_EQ("ci", store().accounts().findToken(hashOf(api.output))->name);
    EXPECT_FALSE(store().agents().findToken(hashOf(agent.output))->shared);
    EXPECT_TRUE(store().agents().findToken(hashOf(shared.output))->shared);
}

TEST_F(ServerCommandsTest, TokensAreListedWithoutTheirSecretAndRevoked) {
    const ServerAnswer api = run({"token", "add", "ci"});
    const ServerAnswer agent = run({"agent-token", "add", "web"});

    EXPECT_THAT(run({"token", "list"}).output, MatchesRegex("ci\tengineer\t[-0-9T:.]+Z\tnever\n"));
    EXPECT_THAT(run({"agent-token", "list"}).output,
                MatchesRegex("web\town\t[-0-9T:.]+Z\tvalid\n"));
    expectDone(run({"token", "revoke", "ci"}), "The token ci opens nothing any more.\n");
    expectDone(run({"agent-token", "revoke", "web"}), "The token web opens nothing any more.\n");

    EXPECT_THAT(run({"token", "list"}).output,
                MatchesRegex("ci\tengineer\t[-0-9T:.]+Z\trevoked\n"));
    EXPECT_THAT(run({"agent-token", "list"}).output,
                MatchesRegex("web\town\t[-0-9T:.]+Z\trevoked\n"));
    expectFailure(run({"token", "revoke", "ci"}), "There is no API token with the name ci");
    expectFailure(run({"agent-token", "revoke", "web"}),
                  "There is no agent token with the name web");
}

TEST_F(ServerCommandsTest, CommandsWorkWhileAServerHasTheStoreOpen) {
    addUser("anna", "viewer");
    (void)store().accounts().listUsers();

    expectDone(addUser("bert", "viewer"), "User bert (viewer) was added.\n");

    EXPECT_EQ(2U, store().accounts().listUsers().size());
}

TEST_F(ServerCommandsTest, WhatIsDoneIsInTheAudit) {
    addUser("anna", "viewer");
    run({"package", "add", "x64", directory.write("agent.tar.gz", "archive")});

    const auto lines = store().audit().list({}, {}).items;

    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("package.add", lines[0].action);
    EXPECT_EQ("agent.tar.gz", lines[0].subject);
    EXPECT_EQ("user.add", lines[1].action);
    EXPECT_EQ("local", lines[1].address);
    EXPECT_EQ("uid " + std::to_string(::getuid()), lines[1].actor);
}

TEST_F(ServerCommandsTest, PackageIsCopiedAndNamed) {
    const std::string archive = directory.write("agent-1.tar.gz", "content");

    const ServerAnswer answer = run({"package", "add", "x64", archive});
    fs::remove(archive);

    const std::string hash = sha256("content").hex();
    expectDone(answer, "Agents that ask for agent-1.tar.gz get this one now.\n");
    EXPECT_EQ(hash + "  agent-1.tar.gz\n", answer.output);
    EXPECT_EQ("content", test::readFile(data + "/packages/" + hash));
    EXPECT_EQ("x64\tagent-1.tar.gz\t7\t" + hash + "\n", run({"package", "list"}).output);
}

TEST_F(ServerCommandsTest, BackupHasWhatTheStoreHas) {
    addUser("anna", "viewer");
    const std::string file = directory.entry("backup");

    expectDone(run({"backup", file}), "The store was copied to " + file +
                                          ". Packages and collections' files lie in " + data +
                                          " and are not in it.\n");

    EXPECT_TRUE(SqliteStore(file, clock).accounts().findUser("anna"));
    expectFailure(run({"backup", file}), "Failed to write the backup " + file + ": File exists");
}

TEST_F(ServerCommandsTest, WrongUseIsToldFromFailure) {
    EXPECT_EQ(2, run({"token", "add"}).exitCode);
    EXPECT_THAT(run({"token", "add"}).errors,
                MatchesRegex("kolvan-server: .*NAME.*\nTry --help\\.\n"));
    EXPECT_EQ("kolvan-server 1.0.0\n", run({"--version"}).output);
}

TEST_F(ServerCommandsTest, FirstLoginIsALinkWithACodeUntilThereIsAUser) {
    fs::create_directory(data);
    RefusalLog refusals(store().audit(), clock);
    const Passwords passwords({1, 8192});
    Logins logins(store(), clock, passwords, refusals);

    const std::string text = firstLoginText(logins, "https://profiling.example");

    constexpr char kBefore[] =
        "Nobody has an account yet. This link makes the first one, an administrator's; it works "
        "once,\nfor a day:\n  https://profiling.example/first-login#";
    ASSERT_EQ(0U, text.find(kBefore));
    const std::string code = text.substr(sizeof kBefore - 1, 43);
    EXPECT_EQ(kBefore + code + "\n", text);
    EXPECT_TRUE(std::holds_alternative<NewSession>(
        logins.redeemFirstLoginCode(code, "anna", kPassword, "192.0.2.1")));
    EXPECT_EQ("", firstLoginText(logins, "https://profiling.example"));
}

class TerminalTest : public ServerCommandsTest {
protected:
    test::ServerAtTerminal terminal{{"user", "add", "anna", "--role", "viewer", "--data", data}};
};

TEST_F(TerminalTest, PasswordIsAskedTwiceAndNotShown) {
    terminal.waitFor("Password for anna: ");
    EXPECT_FALSE(terminal.showsKeys());
    terminal.type(std::string(kPassword) + "\n");
    terminal.waitFor("Once more: ");
    terminal.type(std::string(kPassword) + "\n");

    EXPECT_EQ(0, terminal.finish());

    EXPECT_TRUE(terminal.showsKeys());
    EXPECT_EQ("Password for anna: \r\nOnce more: \r\nUser anna (viewer) was added.\r\n",
              terminal.shown());
    EXPECT_TRUE(mayLogIn("anna", kPassword));
}

TEST_F(TerminalTest, TwoPasswordsThatDifferAddNobody) {
    terminal.waitFor("Password for anna: ");
    terminal.type(std::string(kPassword) + "\n");
    terminal.waitFor("Once more: ");
    terminal.type(std::string(kOtherPassword) + "\n");

    EXPECT_EQ(1, terminal.finish());

    EXPECT_TRUE(terminal.showsKeys());
    EXPECT_THAT(terminal.shown(), testing::EndsWith("kolvan-server: The two passwords differ\r\n"));
    EXPECT_FALSE(store().accounts().findUser("anna"));
}

TEST_F(TerminalTest, InterruptLeavesTheTerminalAsItWas) {
    terminal.waitFor("Password for anna: ");
    terminal.type("half a pass");
    terminal.type("\x03");

    EXPECT_EQ(128 + SIGINT, terminal.finish());

    EXPECT_TRUE(terminal.showsKeys());
}

}  // namespace
}  // namespace kolvan::server
