#include "companions/server/api/TokenRoutes.h"

#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr const char* kTokens = "/api/v1/tokens";

class TokenRoutesTest : public testing::Test {
protected:
    ReceivedResponse send(const std::string& method, const std::string& target,
                          const std::string& body = "") {
        return scene.send(ApiRequest{method, target, body, "application/json", {}}.with(
            scene.token(Role::Administrator)));
    }

    static rapidjson::Document parsed(const ReceivedResponse& response) {
        rapidjson::Document document;
        document.Parse(response.body.c_str());
        return document;
    }

    std::string detail(const std::string& body) {
        const ReceivedResponse response = send("POST", kTokens, body);
        return std::to_string(response.status) + ' ' + parsed(response)["detail"].GetString();
    }

    /// Names on a page, and the cursor of the next.
    std::vector<std::string> page(const std::string& query) {
        const rapidjson::Document document = parsed(send("GET", kTokens + query));
        std::vector<std::string> names;
        for (const auto& item : document["items"].GetArray()) {
            names.emplace_back(item["name"].GetString());
        }
        next = document["next"].IsNull() ? "" : document["next"].GetString();
        return names;
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
    std::string next;
};

TEST_F(TokenRoutesTest, ProgramsTokenIsShownOnceAndOpensWhatItsRoleMay) {
    const ReceivedResponse response =
        send("POST", kTokens, R"({"name":"nightly","kind":"api","role":"viewer"})");

    EXPECT_EQ(201, response.status);
    EXPECT_THAT(
        response.body,
        MatchesRegex(
            R"(\{"id":"[-0-9a-f]{36}","name":"nightly","kind":"api","role":"viewer","shared":false,)"
            R"("made":"2026-01-02T03:04:05.006Z","lastUsed":null,"revoked":null,)"
            R"("token":"kst_[-_A-Za-z0-9]{43}"\})"));
    const std::string text = parsed(response)["token"].GetString();
    EXPECT_EQ(200, scene.send(ApiRequest{"GET", "/api/v1/agents"}.with(text)).status);
    EXPECT_EQ(403, scene.send(ApiRequest{"GET", kTokens}.with(text)).status);
    EXPECT_THAT(send("GET", kTokens).body, testing::Not(HasSubstr(text)));
    EXPECT_THAT(scene.audit(), Contains("administrator token.add nightly (role viewer)"));
}

TEST_F(TokenRoutesTest, AgentsTokenLetsAgentsConnectAndOpensNothingHere) {
    const ReceivedResponse response =
        send("POST", kTokens, R"({"name":"fleet","kind":"agent","shared":true})");

    EXPECT_EQ(201, response.status);
    EXPECT_THAT(
        response.body,
        MatchesRegex(
            R"(\{"id":"[-0-9a-f]{36}","name":"fleet","kind":"agent","role":null,"shared":true,)"
            R"("made":"2026-01-02T03:04:05.006Z","lastUsed":null,"revoked":null,)"
            R"("token":"kat_[-_A-Za-z0-9]{43}"\})"));
    const std::string text = parsed(response)["token"].GetString();
    EXPECT_TRUE(scene.tokens.findAgentToken(text, "192.0.2.1", "host"));
    EXPECT_EQ(401, scene.send(ApiRequest{"GET", "/api/v1/agents"}.with(text)).status);
}

TEST_F(TokenRoutesTest, WhatIsNoTokenIsRefusedWithTheReason) {
    EXPECT_EQ("400 \"kind\" is missing.", detail(R"({"name":"a"})"));
    EXPECT_EQ("400 \"kind\" has to be \"api\" or \"agent\".", detail(R"({"name":"a","kind":"x"})"));
    EXPECT_EQ("400 \"role\" is missing.", detail(R"({"name":"a","kind":"api"})"));
    EXPECT_EQ("400 \"role\" is unknown here.",
              detail(R"({"name":"a","kind":"agent","role":"viewer"})"));
    EXPECT_EQ("400 \"shared\" is unknown here.",
              detail(R"({"name":"a","kind":"api","role":"viewer","shared":true})"));
    EXPECT_EQ("400 The name of a token is 1 to 100 bytes without control characters.",
              detail(R"({"name":"a\nb","kind":"agent"})"));
}

TEST_F(TokenRoutesTest, NameIsTakenOnceAsLongAsItIsInUse) {
    const std::string body = R"({"name":"nightly","kind":"api","role":"viewer"})";
    const ReceivedResponse first = send("POST", kTokens, body);
    const std::string id = parsed(first)["id"].GetString();

    EXPECT_EQ("409 There is an API token with the name nightly", detail(body));
    EXPECT_EQ(204, send("DELETE", std::string(kTokens) + '/' + id).status);

    EXPECT_EQ(201, send("POST", kTokens, body).status);
}

TEST_F(TokenRoutesTest, RevokedTokenOpensNothingAndStaysInTheList) {
    const ReceivedResponse made =
        send("POST", kTokens, R"({"name":"nightly","kind":"api","role":"viewer"})");
    const rapidjson::Document document = parsed(made);
    const std::string path = std::string(kTokens) + '/' + document["id"].GetString();

    EXPECT_EQ(204, send("DELETE", path).status);

    EXPECT_EQ(
        401,
        scene.send(ApiRequest{"GET", "/api/v1/agents"}.with(document["token"].GetString())).status);
    EXPECT_THAT(send("GET", kTokens).body,
                HasSubstr(R"("name":"nightly","kind":"api","role":"viewer","shared":false,)"
                          R"("made":"2026-01-02T03:04:05.006Z","lastUsed":null,)"
                          R"("revoked":"2026-01-02T03:04:05.006Z"})"));
    EXPECT_THAT(scene.audit(), Contains("administrator token.revoke nightly ()"));
    EXPECT_EQ(404, send("DELETE", path).status);
}

TEST_F(TokenRoutesTest, AgentsTokenIsRevokedInTheSameWay) {
    const ReceivedResponse made = send("POST", kTokens, R"({"name":"fleet","kind":"agent"})");
    const rapidjson::Document document = parsed(made);

    EXPECT_EQ(204, send("DELETE", std::string(kTokens) + '/' + document["id"].GetString()).status);

    EXPECT_FALSE(scene.tokens.findAgentToken(document["token"].GetString(), "192.0.2.1", "host"));
}

TEST_F(TokenRoutesTest, PagesHaveAllOfBothKindsOnce) {
    for (const char* const name : {"one", "two"}) {
        scene.tokens.addAgentToken(name, false, {"tester", "local"});
    }

    EXPECT_THAT(page("?limit=2"), ElementsAre("administrator", "engineer"));
    scene.tokens.addApiToken("late", Role::Viewer, {"tester", "local"});
    EXPECT_THAT(page("?limit=2&cursor=" + next), ElementsAre("viewer", "two"));
    EXPECT_THAT(page("?limit=2&cursor=" + next), ElementsAre("one"));
    EXPECT_EQ("", next);
    EXPECT_THAT(page(""), ElementsAre("late", "administrator", "engineer", "viewer", "two", "one"));
    EXPECT_THAT(page("?cursor=no-token"), ElementsAre());
}

TEST_F(TokenRoutesTest, EngineerMakesNoToken) {
    EXPECT_EQ(
        403,
        scene.send("POST", kTokens, R"({"name":"a","kind":"api","role":"administrator"})").status);
    EXPECT_EQ(403, scene.send("DELETE", std::string(kTokens) + "/x").status);
}

}  // namespace
}  // namespace kolvan::test
