#include "companions/server/api/WatchRoutes.h"

#include "companions/server/api/ContractRoute.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using namespace kolvan::server;
using testing::HasSubstr;

class WatchRoutesTest : public testing::Test {
protected:
    const TemporaryDirectory directory;
};

TEST_F(WatchRoutesTest, HealthIsForEverybody) {
    ApiScene scene(directory.path());

    const ReceivedResponse response = scene.send(ApiRequest{"GET", "/healthz"});

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("ok\n", response.body);
    EXPECT_EQ("text/plain; charset=utf-8", response.fields.at("content-type"));
}

TEST_F(WatchRoutesTest, HealthIsTriedOnceASecond) {
    ApiScene scene(directory.path());
    const auto tried = [&] { return scene.store.settings().find("lastTryToWrite"); };

    ASSERT_EQ(200, scene.send(ApiRequest{"GET", "/healthz"}).status);
    const auto first = tried();
    EXPECT_TRUE(first);
    scene.clock.advance(std::chrono::milliseconds(999));
    ASSERT_EQ(200, scene.send(ApiRequest{"GET", "/healthz"}).status);
    EXPECT_EQ(first, tried());
    scene.clock.advance(std::chrono::milliseconds(1));
    ASSERT_EQ(200, scene.send(ApiRequest{"GET", "/healthz"}).status);
    EXPECT_NE(first, tried());
}

TEST_F(WatchRoutesTest, FullDiskIsSaidWithoutPathsAndForgottenWhenThereIsRoom) {
    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", directory.path().c_str(), "tmpfs", 0, "size=4m"));
        ApiScene scene(directory.path());
        ASSERT_EQ(200, scene.send(ApiRequest{"GET", "/healthz"}).status);
        const fs::path ballast = directory.path() / "ballast";
        std::ofstream(ballast) << std::string(8'000'000, 'x');  // all that there is room for

        ReceivedResponse response;
        do {
            scene.clock.advance(std::chrono::seconds(1));
            response = scene.send(ApiRequest{"GET", "/healthz"});
        } while (response.status == 200);

        EXPECT_EQ(503, response.status);
        EXPECT_EQ(R"({"title":"Service Unavailable","status":503,)"
                  R"("detail":"The disk with the server's data is full."})",
                  response.body);
        EXPECT_EQ("5", response.fields.at("retry-after"));
        EXPECT_EQ(200, scene.get("/api/v1/agents").status);

        fs::remove(ballast);
        scene.clock.advance(std::chrono::seconds(1));
        EXPECT_EQ(200, scene.send(ApiRequest{"GET", "/healthz"}).status);
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
}

TEST_F(WatchRoutesTest, FiguresCountWhatThereIs) {
    ApiScene scene(directory.path());
    const Agent agent = scene.addAgent("one");
    const Agent gone = scene.addAgent("two");
    scene.store.agents().leave(gone.id, gone.uuid);
    const Collection collection = scene.addCollection(agent);
    scene.addCollection(agent);
    scene.confirmAll(agent);
    scene.say(collection, OutputChannel::Stdout, "12345");
    scene.upload(collection, "data.0/profile.pb.gz", "1234567");
    ASSERT_EQ(404, scene.get("/api/v1/agents/none").status);
    ASSERT_TRUE(scene.server.waitForConnections(0));

    const ReceivedResponse response = scene.get("/metrics");

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("text/plain; version=0.0.4; charset=utf-8", response.fields.at("content-type"));
    EXPECT_EQ(
        "# HELP kolvan_agents Agents by their presence.\n"
        "# TYPE kolvan_agents gauge\n"
        "kolvan_agents{presence=\"connected\"} 1\n"
        "kolvan_agents{presence=\"left\"} 1\n"
        "kolvan_agents{presence=\"lost\"} 0\n"
        "# HELP kolvan_collections Collections that are kept, by their state.\n"
        "# TYPE kolvan_collections gauge\n"
        "kolvan_collections{state=\"waiting\"} 1\n"
        "kolvan_collections{state=\"running\"} 1\n"
        "kolvan_collections{state=\"stopping\"} 0\n"
        "kolvan_collections{state=\"done\"} 0\n"
        "kolvan_collections{state=\"failed\"} 0\n"
        "kolvan_collections{state=\"cancelled\"} 0\n"
        "# HELP kolvan_held_polls Requests of agents for commands that wait.\n"
        "# TYPE kolvan_held_polls gauge\n"
        "kolvan_held_polls 0\n"
        "# HELP kolvan_connections Connections of agents, programs and browsers.\n"
        "# TYPE kolvan_connections gauge\n"
        "kolvan_connections 1\n"
        "# HELP kolvan_output_bytes_total Output of collectors that was kept.\n"
        "# TYPE kolvan_output_bytes_total counter\n"
        "kolvan_output_bytes_total 5\n"
        "# HELP kolvan_upload_bytes_total Bytes of files that agents have sent.\n"
        "# TYPE kolvan_upload_bytes_total counter\n"
        "kolvan_upload_bytes_total 7\n"
        "# HELP kolvan_http_responses_total Answers by the class of their status.\n"
        "# TYPE kolvan_http_responses_total counter\n"
        "kolvan_http_responses_total{class=\"1xx\"} 0\n"
        "kolvan_http_responses_total{class=\"2xx\"} 0\n"
        "kolvan_http_responses_total{class=\"3xx\"} 0\n"
        "kolvan_http_responses_total{class=\"4xx\"} 1\n"
        "kolvan_http_responses_total{class=\"5xx\"} 0\n"
        "# HELP kolvan_audit_lines_total Lines of the audit that were ever written.\n"
        "# TYPE kolvan_audit_lines_total counter\n"
        "kolvan_audit_lines_total 3\n",
        response.body);
}

TEST_F(WatchRoutesTest, FiguresAreForThoseWithAnAccount) {
    ApiScene scene(directory.path());

    EXPECT_EQ(401, scene.send(ApiRequest{"GET", "/metrics"}).status);
}

TEST_F(WatchRoutesTest, ContractIsShownToEverybodyAsItIs) {
    ApiScene scene(directory.path());

    const ReceivedResponse response = scene.send(ApiRequest{"GET", "/api/v1/openapi.json"});

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("application/json", response.fields.at("content-type"));
    EXPECT_EQ(readFile(KOLVAN_CONTRACT), response.body);
}

}  // namespace
}  // namespace kolvan::test
