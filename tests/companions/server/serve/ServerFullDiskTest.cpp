// A server whose disk is full for a while.

#include "companions/server/collections/OutputFiles.h"
#include "tests/companions/server/serve/RunningServer.h"
#include "tests/companions/server/support/FakeAgent.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

ServerStart startWith(const std::filesystem::path& data) {
    ServerStart start;
    start.data = data;
    return start;
}

/// A server, and an agent that has been given a collection.
struct Scene {
    explicit Scene(const std::filesystem::path& data)
        : server(startWith(data)),
          api(server.port(), server.command({"token", "add", "test", "--role", "engineer"})),
          agent("uuid-1", server.command({"agent-token", "add", "build-7"})) {
        agent.use(server.port());
        EXPECT_EQ(200, agent.connect().status);
        id = api.agent("build-7");
        collection = api.collect(id, {"program"});
        start = commandsOf(agent.poll()).at(0);
    }

    RunningServer server;
    const ApiClient api;
    FakeAgent agent;
    std::string id;  // of the agent
    std::string collection;
    ReceivedCommand start;
};

class ServerFullDiskTest : public testing::Test {
protected:
    /// Runs the test with a small disk of its own.
    void run(const std::function<void()>& body) const {
        const bool mounted = runWithPrivateMounts([&] {
            ASSERT_EQ(0, ::mount("none", place.path().c_str(), "tmpfs", 0, "size=6m,mode=0700"));
            body();
        });
        if (!mounted) {
            GTEST_SKIP() << "this process may not mount anything";
        }
    }

    std::string filler() const { return place.entry("filler"); }

    void fillDisk() const {
        const basekit2::UniqueFd file(::open(filler().c_str(), O_WRONLY | O_CREAT, 0600));
        for (std::size_t size = 65536; size != 0; size /= 2) {
            const std::string bytes(size, 'x');
            while (::write(file.get(), bytes.data(), bytes.size()) > 0) {
            }
            ASSERT_EQ(ENOSPC, errno);
        }
    }

    void makeRoom() const { ASSERT_EQ(0, ::unlink(filler().c_str())); }

    /// Asks for collections until the database has no room for another one.
    /// @return the refusal
    static ReceivedResponse fillDatabase(const ApiClient& api, const std::string& agentId) {
        ReceivedResponse refused;
        EXPECT_TRUE(lookUntil([&] {
            refused = api.post("/api/v1/collections", R"({"agent":")" + agentId +
                                                          R"(","target":{"pid":1},"note":")" +
                                                          std::string(9000, 'n') + "\"}");
            return refused.status != 201;
        }));
        return refused;
    }

    const TemporaryDirectory place;
};

TEST_F(ServerFullDiskTest, AnswersSayThatTheDiskIsFullAndAllGoesOnWhenThereIsRoom) {
    run([this] {
        const Scene scene(place.path() / "data");
        const ApiClient& api = scene.api;
        const FakeAgent& agent = scene.agent;
        ASSERT_EQ(200, agent.writeOutput(scene.start.id, "first\n").status);
        const std::string directory = scene.start.uploadDirectory + "/data.0";

        fillDisk();
        const std::string text(1'000'000, 'm');
        for (const ReceivedResponse& answer : {agent.writeOutput(scene.start.id, text),
                                               agent.upload(directory, "profile.pb.gz", text)}) {
            EXPECT_EQ(507, answer.status);
            EXPECT_THAT(answer.body, HasSubstr("The server's disk is full."));
        }
        const ReceivedResponse refused = fillDatabase(api, scene.id);
        EXPECT_EQ(507, refused.status) << refused.body;
        EXPECT_EQ("running", api.member(scene.collection, "state"));

        makeRoom();
        EXPECT_EQ(200, agent.writeOutput(scene.start.id, "last\n").status);
        EXPECT_EQ(200, agent.upload(directory, "profile.pb.gz", "measured").status);
        EXPECT_EQ(200, agent.finish(scene.start.id, 0).status);
        EXPECT_EQ("done", api.member(scene.collection, "state"));
        const std::string output =
            api.get("/api/v1/collections/" + scene.collection + "/output/stdout").body;
        EXPECT_EQ("first\n", output.substr(0, 6));
        EXPECT_TRUE(output.ends_with(std::string(server::OutputFiles::kGap) + "last\n"));
        EXPECT_EQ("measured", api.get("/api/v1/collections/" + scene.collection +
                                      "/files/data.0%2Fprofile.pb.gz")
                                  .body);
        EXPECT_FALSE(api.collect(scene.id, {"program"}).empty());
    });
}

TEST_F(ServerFullDiskTest, EndThatComesMeanwhileIsRecordedWhenThereIsRoom) {
    run([this] {
        const Scene scene(place.path() / "data");
        const ApiClient& api = scene.api;
        const FakeAgent& agent = scene.agent;

        fillDisk();
        EXPECT_EQ(507, fillDatabase(api, scene.id).status);
        EXPECT_EQ(507, agent.writeOutput(scene.start.id, "first and last").status);
        EXPECT_EQ(507, agent.finish(scene.start.id, 0).status);
        EXPECT_EQ("waiting", api.member(scene.collection, "state"));

        makeRoom();
        EXPECT_TRUE(lookUntil([&] { return api.member(scene.collection, "state") == "done"; }));
        EXPECT_TRUE(lookUntil([&] {
            return api.get("/api/v1/collections/" + scene.collection + "/output/stdout").body ==
                   server::OutputFiles::kGap;
        }));
        ASSERT_FALSE(api.collect(scene.id, {"program"}).empty());
        EXPECT_EQ(1U, commandsOf(agent.poll()).size());  // the next start may go
    });
}

}  // namespace
}  // namespace kolvan::test
