#include "tests/proxy/ProxiedAgent.h"
#include "tests/support/ScriptedCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kolvan::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

// Above what any proxy keeps in memory, and above the usual limits of bodies.
constexpr std::uint64_t kLarge = 64ULL * 1024 * 1024;
constexpr std::uint64_t kAboveLimits = 8ULL * 1024 * 1024;

struct Way {
    const char* name;
    ProxyKind kind;
    Replacements changes;
    const char* protocol;  ///< what the proxy's log has to say of the requests
    std::uint64_t bytes;   ///< of output, and of the trace
};

void PrintTo(const Way& way, std::ostream* stream) {
    *stream << way.name;
}

class ProxyWayTest : public testing::TestWithParam<Way> {};

TEST_P(ProxyWayTest, WholeCollectionWithLargeOutputAndTraceArrives) {
    ProxiedAgent proxied(GetParam().kind, GetParam().changes, /*installed=*/false);
    AgentScene& scene = proxied.scene;
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});
    const auto leash = scene.makeLeash();
    const std::string expected = floodText(GetParam().bytes);
    AgentProcess agent(scene.launch());

    scene.server().send(messages::startCollection(
        "run",
        "-r\nx\ntrace\ndata.0/trace\nsmall\nflood\nout\n" + std::to_string(GetParam().bytes) +
            "\nfb\nwritten\nwait\n" + leash->path(),
        "traces"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "written\n"));
    ASSERT_EQ(1U, scene.resultDirectories().size());
    std::ofstream(scene.resultDirectories().front() / "data.0" / "trace", std::ios::binary)
        << expected;
    leash->release();

    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_TRUE(expected == scene.output("run"));
    ASSERT_EQ(1U, scene.server().uploads().size());
    EXPECT_TRUE(expected == readFile(scene.server().uploads().front().storedPath));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(proxied.proxy->log(), HasSubstr(GetParam().protocol));
    proxied.proxy.reset();
    EXPECT_THAT(scene.problems(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    , ProxyWayTest,
    testing::Values(
        Way{"NginxHttp2", ProxyKind::Nginx, {}, "HTTP/2.0", kLarge},
        Way{"NginxHttp1", ProxyKind::Nginx, {{"ssl http2;", "ssl;"}}, "HTTP/1.1", kAboveLimits},
        Way{"HaProxyHttp2", ProxyKind::HaProxy, {}, "HTTP/2.0", kLarge},
        Way{"HaProxyHttp1",
            ProxyKind::HaProxy,
            {{"alpn h2,http/1.1", "alpn http/1.1"}},
            "HTTP/1.1",
            kAboveLimits}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

// What the shipped configuration is there to prevent: this is nginx as it comes.
TEST(ProxyLimitTest, OutputAboveTheUsualLimitOfNginxIsGoneAndTheRunSucceeds) {
    ProxiedAgent proxied(ProxyKind::Nginx, {{"client_max_body_size 0;", ""}}, /*installed=*/true);
    AgentScene& scene = proxied.scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0",
              scene.run(messages::execute("run", "flood out " + std::to_string(kAboveLimits))));

    EXPECT_GT(kAboveLimits, scene.output("run").size());
    EXPECT_TRUE(agent.waitForOutput("413 Request Entity Too Large"));
    EXPECT_EQ("", agent.errors());
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(proxied.proxy->log(), HasSubstr(" 413 "));
}

}  // namespace
}  // namespace kolvan::test
