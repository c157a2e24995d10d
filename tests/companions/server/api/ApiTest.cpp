#include "companions/server/api/Api.h"

#include "companions/server/api/SessionCookie.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/store/StoreError.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>

namespace kolvan::test {
namespace {

using namespace kolvan::server;

using testing::ElementsAre;
using testing::HasSubstr;

/// The API's door with a route for each permission behind it, "/Look" for instance, that shows who
/// has come in.
class ApiTest : public testing::Test {
protected:
    ApiTest() {
        addRoute("Look", Permission::Look);
        addRoute("Collect", Permission::Collect);
        addRoute("ManageAgents", Permission::ManageAgents);
        addRoute("ManageAccounts", Permission::ManageAccounts);
        addRoute("ReadAudit", Permission::ReadAudit);
        addRoute("ChangeSettings", Permission::ChangeSettings);
        door.start();
    }
    ~ApiTest() override {
        (void)door.stop();  // nothing is left open
    }

    void addRoute(const std::string& name, Permission permission) {
        for (const char* method : {"GET", "POST"}) {
            api.add(
                door.router, method, '/' + name, permission,
                [](http::Request&, const api::Caller& caller) -> http::Awaitable<http::Response> {
                    co_return http::textResponse(200, "text/plain",
                                                 caller.actor.name + '@' + caller.actor.address);
                });
        }
    }

    ReceivedResponse send(const ApiRequest& request) const {
        Client client(door.port());
        (void)client.send(request.text());  // the response tells
        return client.readResponse();
    }

    ReceivedResponse look(std::pair<std::string, std::string> field) const {
        ApiRequest request;
        request.target = "/Look";
        request.fields = {std::move(field)};
        return send(request);
    }

    static ApiRequest posting(const std::string& target) {
        ApiRequest request;
        request.method = "POST";
        request.target = target;
        request.fields = {{"Content-Length", "0"}};
        return request;
    }

    const TemporaryDirectory directory;
    ServerScene door;                  // outlives the pool that its requests use
    ApiScene scene{directory.path()};  // has the pool
    api::Api api{scene.parts()};
};

TEST_F(ApiTest, NobodyComesInWithoutToken) {
    ApiRequest request;
    request.target = "/Look";
    const ReceivedResponse response = send(request);

    EXPECT_EQ(401, response.status);
    EXPECT_EQ("Bearer", response.fields.at("www-authenticate"));
    EXPECT_EQ("application/problem+json", response.fields.at("content-type"));
    EXPECT_EQ(R"({"title":"Unauthorized","status":401,"detail":)"
              R"("This needs a token in the field \"Authorization\", or a session."})",
              response.body);
}

TEST_F(ApiTest, TokenOpensAndIsTheNameOfWhoeverHasIt) {
    const ReceivedResponse response =
        look({"Authorization", "bearer " + scene.token(Role::Viewer)});

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("viewer@127.0.0.1", response.body);
}

TEST_F(ApiTest, WhatIsNoTokenOpensNothing) {
    const std::string token = scene.token(Role::Administrator);
    for (const std::string& value :
         {std::string(), std::string("Bearer"), "Bearer " + token + "x", "Bearer  " + token,
          "Bearer " + token.substr(1), token, "Basic " + token, "Token " + token,
          std::string("Bearer kst_"), std::string("Bearer ' OR 1=1 --")}) {
        EXPECT_EQ(401, look({"Authorization", value}).status) << value;
    }
}

TEST_F(ApiTest, TokenOfAnAgentOpensNothing) {
    const auto token = scene.tokens.addAgentToken("build-7", false, {"tester", "local"});

    EXPECT_EQ(401, look({"Authorization", "Bearer " + token.text}).status);
}

TEST_F(ApiTest, RevokedTokenOpensNothing) {
    const auto token = scene.tokens.addApiToken("short", Role::Viewer, {"tester", "local"});
    EXPECT_EQ(200, look({"Authorization", "Bearer " + token.text}).status);

    EXPECT_TRUE(scene.tokens.revokeApiToken(token.token.id, {"tester", "local"}));

    EXPECT_EQ(401, look({"Authorization", "Bearer " + token.text}).status);
}

TEST_F(ApiTest, UnknownTokenIsALineInTheAudit) {
    (void)look({"Authorization", "Bearer kst_unknown"});

    EXPECT_THAT(scene.audit().back(), HasSubstr("refused"));
    EXPECT_THAT(scene.audit().back(), testing::Not(HasSubstr("kst_unknown")));
}

TEST_F(ApiTest, RoleOpensWhatItMayAndNothingElse) {
    const std::map<Role, std::string> opened = {
        {Role::Viewer, "Look "},
        {Role::Engineer, "Look Collect "},
        {Role::Administrator,
         "Look Collect ManageAgents ManageAccounts ReadAudit ChangeSettings "}};
    for (const auto& [role, expected] : opened) {
        std::string open;
        for (const char* name :
             {"Look", "Collect", "ManageAgents", "ManageAccounts", "ReadAudit", "ChangeSettings"}) {
            const ReceivedResponse response =
                send(posting(std::string("/") + name).with(scene.token(role)));
            open += response.status == 200 ? std::string(name) + ' ' : "";
            EXPECT_TRUE(response.status == 200 || response.status == 403) << response.status;
        }
        EXPECT_EQ(expected, open);
    }
}

TEST_F(ApiTest, SessionOpensWithItsCookie) {
    const NewSession session = scene.logIn("ada", Role::Engineer);
    const std::string cookie = std::string(api::kSessionCookie) + '=' + session.cookie;

    EXPECT_EQ("ada@127.0.0.1", look({"Cookie", cookie}).body);
    EXPECT_EQ("ada@127.0.0.1", look({"Cookie", "theme=dark; " + cookie + "; x"}).body);
    EXPECT_EQ(401, look({"Cookie", "x" + cookie}).status);
    EXPECT_EQ(401, look({"Cookie", cookie + "x"}).status);
    EXPECT_EQ(401, look({"Cookie", std::string(api::kSessionCookie) + '='}).status);
}

TEST_F(ApiTest, SessionChangesNothingWithoutItsTokenAgainstOtherSites) {
    const NewSession session = scene.logIn("ada", Role::Engineer);
    const NewSession other = scene.logIn("eve", Role::Engineer);
    const std::string cookie = std::string(api::kSessionCookie) + '=' + session.cookie;
    const auto post = [&](const std::string& crossSiteToken) {
        ApiRequest request = posting("/Collect");
        request.fields.emplace_back("Cookie", cookie);
        if (!crossSiteToken.empty()) {
            request.fields.emplace_back(api::kCrossSiteField, crossSiteToken);
        }
        return send(request);
    };

    EXPECT_EQ(200, post(session.signedIn.crossSiteToken).status);
    EXPECT_EQ(403, post("").status);
    EXPECT_EQ(403, post(other.signedIn.crossSiteToken).status);
    EXPECT_EQ(R"({"title":"Forbidden","status":403,"detail":"A page has to send its token in )"
              R"(X-Cross-Site-Token with whatever changes something."})",
              post("x").body);
}

TEST_F(ApiTest, TokenCountsWhereThereIsASessionToo) {
    const NewSession session = scene.logIn("ada", Role::Administrator);
    ApiRequest request = posting("/ManageAgents").with(scene.token(Role::Viewer));
    request.fields.emplace_back("Cookie", std::string(api::kSessionCookie) + '=' + session.cookie);
    request.fields.emplace_back(api::kCrossSiteField, session.signedIn.crossSiteToken);

    EXPECT_EQ(403, send(request).status);
}

TEST_F(ApiTest, SessionThatWasEndedOpensNothing) {
    const NewSession session = scene.logIn("ada", Role::Engineer);
    const std::string cookie = std::string(api::kSessionCookie) + '=' + session.cookie;

    scene.logins.logOut(session.cookie, {"ada", "127.0.0.1"});

    EXPECT_EQ(401, look({"Cookie", cookie}).status);
}

/// A route that fails in each way in which the store can fail.
class StoreFailureTest : public ApiTest {
protected:
    ReceivedResponse failWith(StoreError::Reason reason) {
        api::Api::Handler handler =
            [reason](http::Request&, const api::Caller&) -> http::Awaitable<http::Response> {
            throw StoreError(reason, "the reason");
            co_return http::Response();
        };
        ServerScene server;
        api.add(server.router, "GET", "/", Permission::Look, std::move(handler));
        server.start();
        Client client(server.port());
        ApiRequest request;
        request.target = "/";
        (void)client.send(request.with(scene.token(Role::Viewer)).text());
        ReceivedResponse response = client.readResponse();
        (void)server.stop();
        scene.server.threads().join();  // has had to do with the context of `server`
        log = server.log();
        return response;
    }

    std::vector<std::string> log;
};

class ToldStoreFailureTest
    : public StoreFailureTest,
      public testing::WithParamInterface<std::pair<StoreError::Reason, int>> {};

TEST_P(ToldStoreFailureTest, IsAProblemWithItsReason) {
    const ReceivedResponse response = failWith(GetParam().first);

    EXPECT_EQ(GetParam().second, response.status);
    EXPECT_THAT(response.body, HasSubstr(R"("detail":"the reason")"));
    EXPECT_THAT(log, ElementsAre());
}

INSTANTIATE_TEST_SUITE_P(, ToldStoreFailureTest,
                         testing::Values(std::pair(StoreError::Reason::NotFound, 404),
                                         std::pair(StoreError::Reason::NameTaken, 409),
                                         std::pair(StoreError::Reason::Busy, 503),
                                         std::pair(StoreError::Reason::Full, 507)));

class SecretStoreFailureTest : public StoreFailureTest,
                               public testing::WithParamInterface<StoreError::Reason> {};

TEST_P(SecretStoreFailureTest, IsForTheOperatorsEyes) {
    const ReceivedResponse response = failWith(GetParam());

    EXPECT_EQ(500, response.status);
    EXPECT_THAT(response.body, testing::Not(HasSubstr("the reason")));
    EXPECT_THAT(log, ElementsAre(HasSubstr("the reason")));
}

INSTANTIATE_TEST_SUITE_P(, SecretStoreFailureTest,
                         testing::Values(StoreError::Reason::Damaged,
                                         StoreError::Reason::NewerSchema,
                                         StoreError::Reason::Failed));

}  // namespace
}  // namespace kolvan::test
