#include "companions/server/http/ListeningSocket.h"
#include "tests/companions/client/KolvanRun.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/AgentProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <signal.h>

namespace kolvan::client::test {
namespace {

using kolvan::test::ApiScene;
using kolvan::test::lookUntil;
using kolvan::test::TemporaryDirectory;
using server::Collection;
using server::CollectionState;
using server::OutputChannel;
using server::Role;

/// The program and the server itself, with an agent that does what the test says.
class ProfileOnServerTest : public testing::Test {
protected:
    KolvanRun::Environment environment() const {
        return {{"KOLVAN_SERVER", "http://127.0.0.1:" + std::to_string(scene.port())},
                {"KOLVAN_TOKEN", scene.token(Role::Engineer)}};
    }

    /// Waits for the collection that the program makes.
    Collection made() {
        std::vector<Collection> found;
        EXPECT_TRUE(lookUntil([&] {
            found = scene.store.collections().list({}, {}).items;
            return !found.empty();
        }));
        return found.at(0);
    }

    static bool waitFor(const KolvanRun& kolvan, const std::string& text) {
        return lookUntil([&] { return kolvan.errors().find(text) != std::string::npos; });
    }

    void report(const Collection& collection, const std::string& attributes) {
        scene.say(collection, OutputChannel::Feedback, "<progress " + attributes + "/>\n");
    }

    const TemporaryDirectory home;
    const TemporaryDirectory data;
    ApiScene scene{data.path()};
    const server::Agent agent = scene.addAgent("build-7");
};

TEST_F(ProfileOnServerTest, ProgramFollowsTheCollectionToItsEnd) {
    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "4711"}, environment());
    const Collection collection = made();

    scene.confirmAll(agent);
    EXPECT_TRUE(waitFor(kolvan, "running\n"));
    report(collection, R"(elapsed="5.2" stacks="4995" top1="72.1 % hash")");
    EXPECT_TRUE(waitFor(kolvan, "hash\n"));
    scene.end(collection, 0);

    EXPECT_EQ(0, kolvan.wait());
    EXPECT_EQ("Collection " + collection.id.text +
                  "\nwaiting\nrunning\nrunning, 5 s, hottest: hash\ndone\n",
              kolvan.errors());
}

TEST_F(ProfileOnServerTest, ProgramGoesOnWhenTheServerStartsAgain) {
    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "4711"}, environment());
    const Collection collection = made();
    scene.confirmAll(agent);
    report(collection, R"(elapsed="1.0" top1="1.0 % first")");
    EXPECT_TRUE(waitFor(kolvan, "first\n"));
    const unsigned port = scene.port();

    EXPECT_EQ(0U, scene.server.stop());
    report(collection, R"(elapsed="2.0" top1="1.0 % second")");
    scene.server.startOn(server::http::listenOn("127.0.0.1", static_cast<std::uint16_t>(port)));
    EXPECT_TRUE(waitFor(kolvan, "second\n"));
    scene.end(collection, 0);

    EXPECT_EQ(0, kolvan.wait());
    const std::string errors = kolvan.errors();
    EXPECT_THAT(errors, testing::EndsWith("\ndone\n"));
    EXPECT_EQ(errors.find("first\n"), errors.rfind("first\n"));
}

TEST_F(ProfileOnServerTest, InterruptCancelsTheCollection) {
    const KolvanRun::Environment place = environment();
    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "4711"}, place);
    const Collection collection = made();
    EXPECT_TRUE(waitFor(kolvan, "waiting\n"));

    kolvan.signal(SIGINT);

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_EQ(CollectionState::Cancelled,
              scene.store.collections().find(collection.id).value().state);
    EXPECT_THAT(kolvan.errors(),
                testing::EndsWith("\ncancelled\nkolvan: The collection was cancelled.\n"));
}

}  // namespace
}  // namespace kolvan::client::test
