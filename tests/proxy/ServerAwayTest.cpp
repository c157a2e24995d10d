#include "tests/proxy/ProxiedAgent.h"
#include "tests/proxy/ShippedProxy.h"
#include "tests/support/AgentProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <sstream>
#include <string>

namespace kolvan::test {
namespace {

using Clock = std::chrono::steady_clock;

std::size_t errorPages(const ShippedProxy& proxy) {
    std::istringstream lines(proxy.log());
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.find(" 503 ") != std::string::npos ? 1U : 0U;
    }
    return count;
}

// The agent asks again as soon as it is answered, so that only the proxy can slow it down: without
// its help there were some thousand error pages in each second.
TEST(ServerAwayTest, NginxGivesFewErrorPagesForRequestsThatComeAgainAtOnce) {
    const int port = unusedPort();
    ProxiedAgent proxied(ProxyKind::Nginx, {}, /*installed=*/true, port);
    AgentLaunch launch = proxied.scene.launch();
    launch.program = KOLVAN_MORTAL_SERVER;
    launch.firstArgument = launch.program;
    launch.moreArguments = {std::to_string(port), "run", "out done"};
    AgentProcess server(launch);
    // An error page in place of "connected" would be the end of the agent.
    ASSERT_TRUE(server.waitForErrors("serving\n"));
    AgentProcess agent(proxied.scene.launch());
    // The end of the run has been answered, and nothing is under way but the request for commands:
    // an answer that breaks off in the middle would be no error page.
    ASSERT_TRUE(lookUntil([&] {
        const std::string output = agent.output();
        const std::size_t finish = output.find("collector:finish");
        return finish != std::string::npos &&
               output.find("in:  {\"messages\":[]}", finish) != std::string::npos;
    }));

    const Clock::time_point killed = Clock::now();
    server.sendSignal(SIGKILL);
    ASSERT_EQ("killed by signal 9", server.waitForEnd());
    ASSERT_TRUE(lookUntil([&] { return errorPages(*proxied.proxy) >= 4; }));

    // The first one comes at once, each further one two seconds after the one before.
    const std::size_t pages = errorPages(*proxied.proxy);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - killed).count();
    EXPECT_GE(static_cast<std::size_t>(seconds) / 2 + 2, pages);
    EXPECT_TRUE(agent.isRunning());
    EXPECT_EQ("", agent.errors());

    // The agent is not lost: the successor gets its request for commands.
    AgentProcess successor(launch);
    EXPECT_TRUE(successor.waitForOutput("collector:finish run\n"));
    EXPECT_EQ(std::string::npos, successor.output().find("connect "));
}

}  // namespace
}  // namespace kolvan::test
