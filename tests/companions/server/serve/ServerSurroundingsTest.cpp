// The server and what is around it: service managers, other processes on its data, what has become
// of its data.

#include "companions/server/http/ListeningSocket.h"
#include "companions/server/store/Connection.h"
#include "companions/server/store/WriteTransaction.h"
#include "tests/companions/server/cli/ServerProgram.h"
#include "tests/companions/server/serve/ServedAgent.h"
#include "tests/companions/server/serve/ServerPlace.h"
#include "tests/companions/server/support/FakeAgent.h"
#include "tests/support/Certificates.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using server::http::listenOn;
using server::http::localPort;
using testing::HasSubstr;
using testing::MatchesRegex;

class ServerSurroundingsTest : public ServerPlaceTest {};

TEST_F(ServerSurroundingsTest, SocketsOfTheServiceManagerAreServedAlsoAfterARestart) {
    const basekit2::UniqueFd first = listenOn("127.0.0.1", 0);
    const basekit2::UniqueFd second = listenOn("127.0.0.1", 0);
    ServerStart handed = start();
    handed.handedOver = {first.get(), second.get()};
    RunningServer server(handed);
    EXPECT_EQ(localPort(first.get()), server.port());
    EXPECT_THAT(server.output(), HasSubstr("\nServing on http://127.0.0.1:" +
                                           std::to_string(localPort(second.get())) + "\n"));

    for (int restart = 0; restart < 2; ++restart) {
        for (const basekit2::UniqueFd* socket : {&first, &second}) {
            EXPECT_EQ(404, Client(localPort(socket->get())).get("/nothing").status);
        }
        EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(server.restart()));
    }
}

TEST_F(ServerSurroundingsTest, SocketThatOthersReachIsNotServedWithoutTls) {
    const basekit2::UniqueFd open = listenOn("0.0.0.0", 0);
    ServerStart handed = start();
    handed.handedOver = {open.get()};
    {
        RunningServer refused(handed);
        EXPECT_EQ("exited with 2", refused.waitForEnd());
        EXPECT_THAT(refused.errors(), HasSubstr("Listening on 0.0.0.0 without TLS shows"));
    }

    handed.moreArguments = {"--without-tls"};
    RunningServer server(handed);
    EXPECT_EQ(localPort(open.get()), server.port());
}

TEST_F(ServerSurroundingsTest, ServiceManagerIsToldOfTheStartTheRestartAndTheEnd) {
    const basekit2::UniqueFd manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = place.entry("notify");
    std::memcpy(address.sun_path, path.data(), path.size());
    ASSERT_EQ(0,
              ::bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    const timeval deadline{120, 0};
    ASSERT_EQ(0, ::setsockopt(manager.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline));
    const auto heard = [&] {
        std::array<char, 1000> text{};
        const ssize_t length = ::recv(manager.get(), text.data(), text.size(), 0);
        return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "nothing";
    };
    ServerStart watched = start();
    watched.environment["NOTIFY_SOCKET"] = path;
    RunningServer server(watched);
    (void)server.port();

    EXPECT_EQ("READY=1\nMAINPID=" + std::to_string(server.pid()), heard());
    const pid_t replaced = server.restart();
    const std::string next = "READY=1\nMAINPID=" + std::to_string(server.pid());
    EXPECT_THAT(heard(), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
    EXPECT_EQ(next, heard());  // says the new one, whom nobody knows yet
    EXPECT_EQ(next, heard());  // says the old one
    EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(replaced));
    server.sendSignal(SIGTERM);
    EXPECT_EQ("STOPPING=1", heard());
}

TEST_F(ServerSurroundingsTest, CommandThatAnotherProcessQueuesReachesAPollThatIsHeld) {
    RunningServer one(start());
    FakeAgent agent("uuid-1", one.command({"agent-token", "add", "build-7"}));
    agent.use(one.port());
    ASSERT_EQ(200, agent.connect().status);
    RunningServer other(start());
    const ApiClient api = clientOf(other);
    const std::string id = api.agent("build-7");
    auto poll = std::async(std::launch::async, [&] { return agent.poll(); });

    (void)api.collect(id, {"program"});

    const std::vector<ReceivedCommand> commands = commandsOf(poll.get());
    ASSERT_EQ(1U, commands.size());
    EXPECT_EQ("collector:collection:start", commands.front().type);
}

TEST_F(ServerSurroundingsTest, PollIsHeldWhileItsCommandsCannotBeTaken) {
    RunningServer server(start());
    const ApiClient api = clientOf(server);
    FakeAgent agent("uuid-1", server.command({"agent-token", "add", "build-7"}));
    agent.use(server.port());
    ASSERT_EQ(200, agent.connect().status);
    const std::string id = api.agent("build-7");
    ASSERT_EQ(202, api.post("/api/v1/agents/" + id + "/processes").status);
    std::future<ReceivedResponse> poll;
    {
        server::Connection connection((start().data / "kolvan.sqlite").string(),
                                      server::Connection::Access::ReadWrite);
        const server::WriteTransaction keepsOthersOut(connection);
        poll = std::async(std::launch::async, [&] { return agent.poll(); });
        EXPECT_TRUE(server.waitForErrors("An agent's commands stay in its queue: "));
        EXPECT_EQ(std::future_status::timeout, poll.wait_for(std::chrono::seconds(0)));
    }

    (void)api.collect(id, {"program"});  // wakes the poll, unless it has looked again by itself

    EXPECT_FALSE(commandsOf(poll.get()).empty());
}

TEST_F(ServerSurroundingsTest, TokenThatIsRevokedByTheCommandLineOpensNothingAnyMore) {
    RunningServer server(start());
    const ApiClient api = clientOf(server);
    ASSERT_EQ(200, api.get("/api/v1/agents").status);

    (void)server.command({"token", "revoke", "test"});

    EXPECT_EQ(401, api.get("/api/v1/agents").status);
}

TEST_F(ServerSurroundingsTest, DamagedDatabaseIsRefusedAndABackupInItsPlaceWorks) {
    const std::string database = (start().data / "kolvan.sqlite").string();
    const std::string backup = place.entry("backup.sqlite");
    std::string token;
    {
        RunningServer server(start());
        token = server.command({"token", "add", "test", "--role", "engineer"});
        (void)server.port();
        (void)server.command({"backup", backup});
        server.sendSignal(SIGTERM);
        ASSERT_EQ("exited with 0", server.waitForEnd());
    }
    std::fstream(database, std::ios::in | std::ios::out | std::ios::binary) << "something else";
    {
        RunningServer refused(start());
        EXPECT_EQ("exited with 1", refused.waitForEnd());
        EXPECT_EQ("", refused.output());
        EXPECT_THAT(refused.errors(), HasSubstr("kolvan-server: " + database + " is damaged ("));
    }

    for (const char* beside : {"", "-wal", "-shm"}) {
        fs::remove(database + beside);
    }
    fs::copy_file(backup, database);

    RunningServer server(start());
    EXPECT_EQ(200, ApiClient(server.port(), token).get("/api/v1/agents").status);
}

TEST_F(ServerSurroundingsTest, DirectoryThatCannotBeWrittenIsRefusedWithASentence) {
    ServerStart nowhere;
    nowhere.data = "/proc/nowhere";

    RunningServer refused(nowhere);

    EXPECT_EQ("exited with 1", refused.waitForEnd());
    EXPECT_THAT(refused.errors(),
                HasSubstr("kolvan-server: Failed to make the directory /proc/nowhere"));
}

TEST_F(ServerSurroundingsTest, AddressThatIsTakenIsRefusedWithASentence) {
    const basekit2::UniqueFd taken = listenOn("127.0.0.1", 0);
    ServerStart second = start();
    second.listen = "127.0.0.1:" + std::to_string(localPort(taken.get()));

    RunningServer refused(second);

    EXPECT_EQ("exited with 1", refused.waitForEnd());
    EXPECT_EQ("kolvan-server: Cannot listen on 127.0.0.1 port " +
                  std::to_string(localPort(taken.get())) + ": Address already in use\n",
              refused.errors());
}

TEST_F(ServerSurroundingsTest, RealAgentWorksOverTlsAlsoAfterARestart) {
    const Certificates certificates;
    const ServerIdentity identity = certificates.valid();
    ServerStart secure = start();
    secure.moreArguments = {"--certificate", identity.certificateFile, "--key", identity.keyFile};
    RunningServer server(secure);
    const std::string port = std::to_string(server.port());
    EXPECT_THAT(server.output(), HasSubstr("Serving on https://127.0.0.1:" + port + "\n"));
    const std::string token = server.command({"agent-token", "add", "build-7"});
    AgentInstallation installation;
    (void)installation.surroundings().write("agent/authority.pem",
                                            readFile(certificates.authorityFile()));
    AgentSettings settings;
    settings.accessToken = token;
    settings.serverEndpoint = "https://127.0.0.1:" + port;
    settings.serverCertificateName = "authority.pem";
    installation.configure(settings.text());
    addScriptedPackages(server);
    AgentLaunch launch(installation);
    launch.environment["no_proxy"] = "*";
    AgentProcess agent(launch);
    // A second server, without TLS, on the same data shows what the agent does.
    RunningServer other(start());
    const ApiClient api = clientOf(other);
    const std::string id = api.agent("build-7");

    EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(server.restart()));
    const std::string collection = api.collect(id, {"out", "text"});

    EXPECT_EQ("done", api.waitForState(collection, "done"));
    EXPECT_TRUE(agent.isRunning());
}

TEST_F(ServerSurroundingsTest, ServerWhoseTerminalGoesEndsAndDoesNotStartAnew) {
    const std::string data = start().data.string();
    ServerAtTerminal server({"--listen", "127.0.0.1:0", "--data", data});
    server.waitFor(" token add NAME");

    server.hangUp();

    EXPECT_EQ(0, server.finish());
    std::string left;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "cmdline");
        const std::string words{std::istreambuf_iterator<char>(file), {}};
        left += words.find(data) != std::string::npos ? entry.path().string() + " " : "";
    }
    EXPECT_EQ("", left);
}

TEST_F(ServerSurroundingsTest, SoftLimitOfDescriptorsIsRaised) {
    ServerStart limited = start();
    limited.softDescriptorLimit = 100;
    RunningServer server(limited);
    (void)server.port();

    std::ifstream limits("/proc/" + std::to_string(server.pid()) + "/limits");
    std::string line;
    while (std::getline(limits, line) && !line.starts_with("Max open files")) {
    }

    EXPECT_THAT(line, MatchesRegex("Max open files +([0-9]+) +[0-9]+ +files *"));
    EXPECT_THAT(line, testing::Not(HasSubstr(" 100 ")));
}

}  // namespace
}  // namespace kolvan::test
