#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/asio/post.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;
using testing::HasSubstr;
using testing::Not;

/// What docs/server-security.md promises of the API and has no other test.
class SecurityTest : public testing::Test {
protected:
    /// Waits until the server has refused that many requests with a status of 500 and above.
    bool waitForRefusals(std::uint64_t count) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        const auto refused = [&] {
            return scene.server.network().call(
                [&] { return scene.server.settings.traffic->responses[5]; });
        };
        while (refused() < count) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(SecurityTest, CrowdThatLogsInIsWorkedOnOneByOneAndTheRestSentAway) {
    constexpr int kWorkedOn = 17;  // one, and those who may wait
    constexpr int kSentAway = 3;
    std::promise<void> letGo;
    const std::shared_future<void> gone = letGo.get_future().share();
    for (int thread = 0; thread < 2; ++thread) {  // as many as the scene's pool has
        boost::asio::post(scene.server.threads(), [gone] { gone.wait(); });
    }
    const std::string request =
        ApiRequest{"POST", "/api/v1/session", R"({"name":"ada","password":"guess"})"}.text();
    std::vector<std::unique_ptr<Client>> crowd;
    for (int index = 0; index < kWorkedOn + kSentAway; ++index) {
        crowd.push_back(std::make_unique<Client>(scene.port()));
        crowd.back()->send(request);
    }

    const bool sentAway = waitForRefusals(kSentAway);
    letGo.set_value();

    EXPECT_TRUE(sentAway);
    std::map<int, int> answers;
    for (const auto& client : crowd) {
        ++answers[client->readResponse().status];
    }
    EXPECT_EQ(kSentAway, answers[503]);
    EXPECT_EQ(kWorkedOn, answers[401] + answers[429]);
}

TEST_F(SecurityTest, TokenOfOneIsNoUseAsTheCookieOfAnother) {
    ApiRequest request{"GET", "/api/v1/agents"};
    request.fields.emplace_back("Cookie", "kolvan_session=" + scene.token(Role::Administrator));

    EXPECT_EQ(401, scene.send(request).status);
}

TEST_F(SecurityTest, SecretOfASessionIsNoToken) {
    const NewSession session = scene.logIn("ada", Role::Administrator);

    EXPECT_EQ(401, scene.send(ApiRequest{"GET", "/api/v1/agents"}.with(session.cookie)).status);
}

TEST_F(SecurityTest, WrongTokenIsNotMadeUpForByACookie) {
    const NewSession session = scene.logIn("ada", Role::Administrator);
    ApiRequest request{"GET", "/api/v1/agents"};
    request.fields.emplace_back("Cookie", "kolvan_session=" + session.cookie);

    EXPECT_EQ(200, scene.send(request).status);
    EXPECT_EQ(401, scene.send(request.with("wrong")).status);
}

TEST_F(SecurityTest, BodyNestedWithoutEndIsRefused) {
    const ReceivedResponse response =
        scene.send("POST", "/api/v1/collections", std::string(60'000, '['));

    EXPECT_EQ(400, response.status);
    EXPECT_THAT(response.body, HasSubstr("The body is no JSON"));
}

TEST_F(SecurityTest, BodyBeyondItsLimitIsRefused) {
    EXPECT_EQ(413, scene.send("POST", "/api/v1/collections", std::string(65'537, ' ')).status);
}

TEST_F(SecurityTest, OutputIsNeverInterpretedByABrowser) {
    const Collection collection = scene.addCollection(scene.addAgent("one"));
    scene.say(collection, OutputChannel::Stdout, "<script>alert(1)</script>");
    scene.upload(collection, "data.0/page.html", "<script>alert(1)</script>");
    const std::string one = "/api/v1/collections/" + collection.id.text;

    for (const std::string& target : {one + "/output/stdout", one + "/files/data.0%2Fpage.html"}) {
        const ReceivedResponse response = scene.get(target);
        EXPECT_EQ("<script>alert(1)</script>", response.body) << target;
        EXPECT_EQ("application/octet-stream", response.fields.at("content-type")) << target;
        EXPECT_EQ("nosniff", response.fields.at("x-content-type-options")) << target;
        EXPECT_EQ("sandbox", response.fields.at("content-security-policy")) << target;
    }
}

TEST_F(SecurityTest, NamesInAddressesLeadToNoOtherFile) {
    const Collection collection = scene.addCollection(scene.addAgent("one"));
    scene.upload(collection, "data.0/trace", "trace");
    const std::string one = "/api/v1/collections/" + collection.id.text;
    ASSERT_EQ(200, scene.get(one + "/files/data.0%2Ftrace").status);

    for (const char* const target :
         {"/files/..%2F..%2F..%2Fkolvan.sqlite", "/files/%2Fetc%2Fpasswd", "/files/data.0%2F..",
          "/files/data.0%2F.%2Ftrace", "/output/..%2Fstdout"}) {
        EXPECT_EQ(404, scene.get(one + target).status) << target;
    }
    EXPECT_EQ(400, scene.get(one + "/files/data.0%2Ftrace%00.html").status);
    EXPECT_EQ(404, scene.get("/api/v1/collections/..%2F..%2Fetc/output/stdout").status);
}

TEST_F(SecurityTest, TextsOfStrangersStayTextsInJson) {
    scene.addAgent("</script><b>\"\\\x01\xC3(\xE2\x80\xA8");

    EXPECT_THAT(scene.get("/api/v1/agents").body,
                HasSubstr("\"name\":\"</script><b>\\\"\\\\\\u0001\xEF\xBF\xBD(\xE2\x80\xA8\""));
}

TEST_F(SecurityTest, SecretsAreInNoAnswerButThatWhichMadeThem) {
    const NewSession session = scene.logIn("ada", Role::Administrator);
    std::string answers;
    for (const char* const target :
         {"/api/v1/users", "/api/v1/tokens", "/api/v1/audit", "/api/v1/session", "/metrics"}) {
        const ReceivedResponse response =
            scene.send(ApiRequest{"GET", target}.with(scene.token(Role::Administrator)));
        ASSERT_EQ(200, response.status) << target;
        answers += response.body;
    }

    EXPECT_THAT(answers, Not(HasSubstr(session.cookie)));
    EXPECT_THAT(answers, Not(HasSubstr(session.signedIn.crossSiteToken)));
    EXPECT_THAT(answers, Not(HasSubstr("argon2")));
    EXPECT_THAT(answers, Not(HasSubstr("kst_")));
}

}  // namespace
}  // namespace kolvan::test
