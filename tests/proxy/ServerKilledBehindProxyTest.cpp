#include "basekit2/UniqueFd.h"
#include "tests/proxy/ProxiedAgent.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ScriptedCollector.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

using testing::HasSubstr;
using testing::Not;

/// How often HAProxy has tried again to reach the server, which it tells on its control socket.
int retriesOf(const std::string& socketPath) {
    const basekit2::UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    constexpr std::string_view kQuestion = "show stat typed\n";
    if (::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::write(client.get(), kQuestion.data(), kQuestion.size()) < 0) {
        throw std::runtime_error("HAProxy does not answer");
    }
    std::string answer;
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::read(client.get(), piece.data(), piece.size())) > 0;) {
        answer.append(piece.data(), static_cast<std::size_t>(count));
    }
    // For example "S.3.1.15.wretr.1:MCP:u64:2", S for a server.
    std::istringstream lines(answer);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("S.") && line.find(".wretr.") != std::string::npos) {
            return std::stoi(line.substr(line.rfind(':') + 1));
        }
    }
    throw std::runtime_error("HAProxy tells no number of retries: " + answer);
}

std::size_t countLines(const std::string& text, const std::string& beginning) {
    std::istringstream lines(text);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.starts_with(beginning) ? 1U : 0U;
    }
    return count;
}

/// Requests for which the agent has no answer yet.
std::size_t openRequests(const AgentProcess& agent) {
    const std::string log = agent.output();
    return countLines(log, "out: ") - countLines(log, "in:  ");
}

/// What a server has received, in alphabetical order.
std::vector<std::string> received(const AgentProcess& server) {
    std::vector<std::string> found;
    std::istringstream lines(server.output());
    for (std::string line; std::getline(lines, line);) {
        found.push_back(line);
    }
    std::sort(found.begin(), found.end());
    return found;
}

/// Starts a server in a process of its own. It gives the agent one run, which writes a line, waits
/// for the leash and writes another.
std::unique_ptr<AgentProcess> startServer(const AgentScene& scene, int port, const std::string& id,
                                          const Leash& leash) {
    AgentLaunch launch = scene.launch();
    launch.program = KOLVAN_MORTAL_SERVER;
    launch.firstArgument = launch.program;
    launch.moreArguments = {std::to_string(port), id,
                            "out early wait " + leash.path() + " out late"};
    return std::make_unique<AgentProcess>(launch);
}

TEST(ServerKilledBehindProxyTest, SuccessorsBehindHaProxyGetWhatTheirPredecessorsCouldNotTake) {
    const TemporaryDirectory place;
    const std::string control = place.entry("control");
    const int port = unusedPort();
    // Over HTTP/1.1: libcurl itself repeats a request that was refused over HTTP/2, which would
    // hide what HAProxy does.
    ProxiedAgent proxied(ProxyKind::HaProxy,
                         {{"alpn h2,http/1.1", "alpn http/1.1"},
                          {"global\n    log stdout",
                           "global\n    stats socket " + control + " level user\n    log stdout"}},
                         /*installed=*/true, port);
    AgentScene& scene = proxied.scene;
    auto leash = scene.makeLeash("leash-0");
    auto server = startServer(scene, port, "run-0", *leash);
    AgentProcess agent(scene.launch());
    std::vector<std::string> expected = {"collector:stdout run-0", "commands:get ", "commands:get ",
                                         "connect "};

    for (int life = 1; life <= 3; ++life) {
        // One request for commands is held; everything else is answered.
        ASSERT_TRUE(lookUntil([&] {
            return received(*server) == expected && openRequests(agent) == 1;
        })) << server->output();
        server->sendSignal(SIGKILL);
        ASSERT_EQ("killed by signal 9", server->waitForEnd());
        // The run ends while nobody is there to be told. HAProxy by itself tries three times.
        leash->release();
        ASSERT_TRUE(lookUntil([&] { return openRequests(agent) == 2; }));
        const int before = retriesOf(control);
        ASSERT_TRUE(lookUntil([&] { return retriesOf(control) >= before + 8; }));

        const std::string id = "run-" + std::to_string(life);
        const std::string previous = "run-" + std::to_string(life - 1);
        leash = scene.makeLeash("leash-" + std::to_string(life));
        server = startServer(scene, port, id, *leash);
        expected = {"collector:finish " + previous, "collector:stdout " + previous,
                    "collector:stdout " + id, "commands:get ", "commands:get "};
        std::sort(expected.begin(), expected.end());
    }

    EXPECT_TRUE(lookUntil([&] {
        return received(*server) == expected && openRequests(agent) == 1;
    })) << server->output();
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(agent.output(), Not(HasSubstr("<html>")));
    EXPECT_THAT(proxied.proxy->log(), Not(HasSubstr(" 50")));
}

}  // namespace
}  // namespace kolvan::test
