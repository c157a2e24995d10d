#include "companions/server/api/SessionRoutes.h"

#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <variant>

namespace kolvan::test {
namespace {

using namespace kolvan::server;
using namespace std::chrono_literals;
using testing::MatchesRegex;

constexpr const char* kSession = "/api/v1/session";
constexpr const char* kPassword = "/api/v1/session/password";
constexpr const char* kFirst = "/api/v1/session/first";

std::string loginBody(const std::string& name, const std::string& password) {
    return R"({"name":")" + name + R"(","password":")" + password + "\"}";
}

std::string problem(int status, const std::string& title, const std::string& detail) {
    return R"({"title":")" + title + R"(","status":)" + std::to_string(status) + R"(,"detail":")" +
           detail + "\"}";
}

class SessionRoutesTest : public testing::Test {
protected:
    ReceivedResponse post(const std::string& target, const std::string& body,
                          const std::string& cookie = "") {
        ApiRequest request{"POST", target, body, "application/json", {}};
        if (!cookie.empty()) {
            request.fields.emplace_back("Cookie", "other=1; kolvan_session=" + cookie);
        }
        return scene.send(request);
    }

    ReceivedResponse withCookie(const std::string& method, const std::string& target,
                                const std::string& cookie, const std::string& crossSiteToken = "") {
        ApiRequest request{method, target, {}, {}, {}};
        request.fields.emplace_back("Cookie", "kolvan_session=" + cookie);
        if (!crossSiteToken.empty()) {
            request.fields.emplace_back("X-Cross-Site-Token", crossSiteToken);
        }
        return scene.send(request);
    }

    ReceivedResponse changePassword(const NewSession& session, const std::string& present,
                                    const std::string& next) {
        ApiRequest request{
            "POST", kPassword,
            R"({"presentPassword":")" + present + R"(","password":")" + next + "\"}"};
        request.fields.emplace_back("Cookie", "kolvan_session=" + session.cookie);
        request.fields.emplace_back("X-Cross-Site-Token", session.signedIn.crossSiteToken);
        return scene.send(request);
    }

    /// The session's secret in the answer to a login.
    static std::string cookieOf(const ReceivedResponse& response) {
        const auto found = response.fields.find("set-cookie");
        if (found == response.fields.end()) {
            return "none";
        }
        const std::size_t begin = found->second.find('=') + 1;
        return found->second.substr(begin, found->second.find(';') - begin);
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(SessionRoutesTest, RightPasswordMakesASession) {
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});

    const ReceivedResponse response = post(kSession, loginBody("ada", ApiScene::kPassword));

    EXPECT_EQ(200, response.status);
    EXPECT_THAT(
        response.body,
        MatchesRegex(R"(\{"name":"ada","role":"engineer","crossSiteToken":"[-_A-Za-z0-9]{43}"\})"));
    EXPECT_THAT(
        response.fields.at("set-cookie"),
        MatchesRegex("kolvan_session=[-_A-Za-z0-9]{43}; Path=/; HttpOnly; SameSite=Strict"));
    EXPECT_EQ("no-store", response.fields.at("cache-control"));
    EXPECT_EQ(response.body, withCookie("GET", kSession, cookieOf(response)).body);
}

TEST_F(SessionRoutesTest, WrongPasswordAndUnknownUserGetTheSameAnswer) {
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});

    const ReceivedResponse wrong = post(kSession, loginBody("ada", "wrong horse battery"));
    const ReceivedResponse unknown = post(kSession, loginBody("eve", ApiScene::kPassword));

    EXPECT_EQ(401, wrong.status);
    EXPECT_EQ(problem(401, "Unauthorized", "Name or password is wrong."), wrong.body);
    EXPECT_EQ("Bearer", wrong.fields.at("www-authenticate"));
    EXPECT_EQ(0U, wrong.fields.count("set-cookie"));
    EXPECT_EQ(401, unknown.status);
    EXPECT_EQ(wrong.body, unknown.body);
}

TEST_F(SessionRoutesTest, GuessingIsToldHowLongToWait) {
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});
    for (int guess = 0; guess < 5; ++guess) {
        ASSERT_EQ(401, post(kSession, loginBody("ada", "wrong horse battery")).status);
    }

    const ReceivedResponse refused = post(kSession, loginBody("ada", ApiScene::kPassword));
    scene.clock.advance(1s);

    EXPECT_EQ(429, refused.status);
    EXPECT_EQ("1", refused.fields.at("retry-after"));
    EXPECT_EQ(problem(429, "Too Many Requests",
                      "Too many attempts have failed. Wait for 1 s, then try again."),
              refused.body);
    EXPECT_EQ(200, post(kSession, loginBody("ada", ApiScene::kPassword)).status);
}

TEST_F(SessionRoutesTest, CookieThatWasPlantedBeforeTheLoginIsWorthNothingAfterIt) {
    const NewSession planted = scene.logIn("eve", Role::Viewer);
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});

    const ReceivedResponse response =
        post(kSession, loginBody("ada", ApiScene::kPassword), planted.cookie);

    EXPECT_EQ(200, response.status);
    EXPECT_NE(planted.cookie, cookieOf(response));
    EXPECT_EQ(401, withCookie("GET", kSession, planted.cookie).status);
}

TEST_F(SessionRoutesTest, CookieOfOnesOwnChoiceBecomesNoSession) {
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});

    const ReceivedResponse response =
        post(kSession, loginBody("ada", ApiScene::kPassword), "chosen");

    EXPECT_EQ(200, response.status);
    EXPECT_EQ(401, withCookie("GET", kSession, "chosen").status);
}

TEST_F(SessionRoutesTest, FormOfAnotherSiteCannotLogIn) {
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});
    const std::string body = loginBody("ada", ApiScene::kPassword);

    for (const char* const type :
         {"text/plain", "application/x-www-form-urlencoded", "multipart/form-data"}) {
        EXPECT_EQ(415, scene.send(ApiRequest{"POST", kSession, body, type, {}}).status) << type;
    }
}

TEST_F(SessionRoutesTest, WhatIsNoLoginIsRefusedBeforeAnyWork) {
    EXPECT_EQ(problem(400, "Bad Request", R"(\"password\" is missing.)"),
              post(kSession, R"({"name":"ada"})").body);
    EXPECT_EQ(problem(400, "Bad Request", R"(\"password\" may have 1024 characters at most.)"),
              post(kSession, loginBody("ada", std::string(1025, 'x'))).body);
    EXPECT_EQ(problem(400, "Bad Request", R"(\"code\" is unknown here.)"),
              post(kSession, R"({"code":"1"})").body);
}

TEST_F(SessionRoutesTest, LoggingOutEndsTheSessionAndTakesTheCookieBack) {
    const NewSession session = scene.logIn("ada", Role::Viewer);

    const ReceivedResponse response =
        withCookie("DELETE", kSession, session.cookie, session.signedIn.crossSiteToken);

    EXPECT_EQ(204, response.status);
    EXPECT_EQ("kolvan_session=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0",
              response.fields.at("set-cookie"));
    EXPECT_EQ(401, withCookie("GET", kSession, session.cookie).status);
    EXPECT_EQ("ada logout  ()", scene.audit().back());
}

TEST_F(SessionRoutesTest, OwnPasswordIsChangedAndTheSessionGoesOnAsAnotherOne) {
    const NewSession elsewhere = scene.logIn("ada", Role::Viewer);
    const NewSession session =
        std::get<NewSession>(scene.logins.logIn("ada", ApiScene::kPassword, "", "127.0.0.1"));

    const ReceivedResponse response =
        changePassword(session, ApiScene::kPassword, "another password");

    EXPECT_EQ(200, response.status);
    EXPECT_THAT(
        response.body,
        MatchesRegex(R"(\{"name":"ada","role":"viewer","crossSiteToken":"[-_A-Za-z0-9]{43}"\})"));
    EXPECT_EQ(response.body, withCookie("GET", kSession, cookieOf(response)).body);
    EXPECT_EQ(401, withCookie("GET", kSession, session.cookie).status);
    EXPECT_EQ(401, withCookie("GET", kSession, elsewhere.cookie).status);
    EXPECT_EQ(401, post(kSession, loginBody("ada", ApiScene::kPassword)).status);
    EXPECT_EQ(200, post(kSession, loginBody("ada", "another password")).status);
}

TEST_F(SessionRoutesTest, OwnPasswordTakesThePresentOneAndAGoodNewOne) {
    const NewSession session = scene.logIn("ada", Role::Viewer);

    EXPECT_EQ(problem(403, "Forbidden", "The present password is wrong."),
              changePassword(session, "wrong", "another password").body);
    EXPECT_EQ(problem(400, "Bad Request", "A password has 12 characters or more."),
              changePassword(session, ApiScene::kPassword, "short").body);

    EXPECT_EQ(200, withCookie("GET", kSession, session.cookie).status);
    EXPECT_EQ(200, post(kSession, loginBody("ada", ApiScene::kPassword)).status);
}

TEST_F(SessionRoutesTest, GuessingThePresentPasswordIsToldHowLongToWait) {
    const NewSession session = scene.logIn("ada", Role::Viewer);
    ReceivedResponse response;
    for (int guess = 0; guess < 7 && response.status != 429; ++guess) {
        response = changePassword(session, "wrong", "another password");
    }

    EXPECT_EQ(429, response.status);
    EXPECT_EQ(1U, response.fields.count("retry-after"));
}

TEST_F(SessionRoutesTest, ProgramHasNoPasswordToChange) {
    ApiRequest request{"POST", kPassword,
                       R"({"presentPassword":"correct horse","password":"another password"})"};

    EXPECT_EQ(
        problem(400, "Bad Request", "A token has no password. Another token takes its place."),
        scene.send(request.with(scene.token(Role::Administrator))).body);
}

TEST_F(SessionRoutesTest, AnotherSiteCannotLogAnybodyOut) {
    const NewSession session = scene.logIn("ada", Role::Viewer);

    EXPECT_EQ(403, withCookie("DELETE", kSession, session.cookie).status);
    EXPECT_EQ(403, withCookie("DELETE", kSession, session.cookie, "a guess").status);

    EXPECT_EQ(200, withCookie("GET", kSession, session.cookie).status);
}

TEST_F(SessionRoutesTest, ProgramIsToldItsNameAndHasNoSessionToEnd) {
    EXPECT_EQ(R"({"name":"viewer","role":"viewer","crossSiteToken":null})",
              scene.get(kSession).body);

    const ReceivedResponse response = scene.send("DELETE", kSession);

    EXPECT_EQ(400, response.status);
    EXPECT_EQ(problem(400, "Bad Request",
                      "A token has no session that could end. It is revoked instead."),
              response.body);
}

class FirstLoginTest : public SessionRoutesTest {
protected:
    static std::string firstBody(const std::string& code, const std::string& name = "ada",
                                 const std::string& password = ApiScene::kPassword) {
        return R"({"code":")" + code + R"(","name":")" + name + R"(","password":")" + password +
               "\"}";
    }

    const std::string code = scene.logins.makeFirstLoginCode().value();
};

TEST_F(FirstLoginTest, CodeMakesAnAdministratorOnce) {
    const ReceivedResponse response = post(kFirst, firstBody(code));

    EXPECT_EQ(200, response.status);
    EXPECT_THAT(response.body,
                MatchesRegex(R"(\{"name":"ada","role":"administrator","crossSiteToken":".*"\})"));
    EXPECT_EQ(200, withCookie("GET", "/api/v1/users", cookieOf(response)).status);
    EXPECT_EQ("ada login.first ada ()", scene.audit().back());
    EXPECT_EQ(401, post(kFirst, firstBody(code, "eve")).status);
    EXPECT_EQ(1U, scene.store.accounts().listUsers().size());
}

TEST_F(FirstLoginTest, BadNameOrPasswordLeavesTheCodeValid) {
    EXPECT_EQ(problem(400, "Bad Request", "A password has 12 characters or more."),
              post(kFirst, firstBody(code, "ada", "short")).body);
    EXPECT_EQ(400, post(kFirst, firstBody(code, "a b")).status);

    EXPECT_EQ(200, post(kFirst, firstBody(code)).status);
}

TEST_F(FirstLoginTest, WrongCodeMakesNobody) {
    const ReceivedResponse response = post(kFirst, firstBody("a guess"));

    EXPECT_EQ(401, response.status);
    EXPECT_EQ(
        problem(401, "Unauthorized",
                "The code is wrong, was used, or is too old. The server prints a new one when "
                "it starts, as long as nobody has an account."),
        response.body);
    EXPECT_TRUE(scene.store.accounts().listUsers().empty());
}

TEST_F(FirstLoginTest, GuessingIsSlowedDown) {
    int status = 401;
    int guesses = 0;
    for (; status == 401 && guesses < 100; ++guesses) {
        status = post(kFirst, firstBody("a guess")).status;
    }

    EXPECT_EQ(429, status);
    EXPECT_GT(20, guesses);
}

TEST(SessionBehindTlsTest, CookieIsOfThisHostAndGoesOverTlsOnly) {
    const TemporaryDirectory directory;
    ApiScene scene(directory.path(), "https://profiles.example");
    scene.users.add("ada", Role::Engineer, ApiScene::kPassword, {"tester", "local"});

    const ReceivedResponse response =
        scene.send(ApiRequest{"POST", kSession, loginBody("ada", ApiScene::kPassword)});

    EXPECT_THAT(response.fields.at("set-cookie"),
                MatchesRegex("__Host-kolvan_session=[-_A-Za-z0-9]{43}; Path=/; HttpOnly; "
                             "SameSite=Strict; Secure"));
}

}  // namespace
}  // namespace kolvan::test
