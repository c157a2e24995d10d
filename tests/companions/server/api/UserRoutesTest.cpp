#include "companions/server/api/UserRoutes.h"

#include "companions/server/store/Names.h"
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
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kUsers = "/api/v1/users";

class UserRoutesTest : public testing::Test {
protected:
    ReceivedResponse send(const std::string& method, const std::string& target,
                          const std::string& body = "") {
        return scene.send(ApiRequest{method, target, body, "application/json", {}}.with(
            scene.token(Role::Administrator)));
    }

    User add(const std::string& name, Role role = Role::Viewer) {
        return scene.users.add(name, role, ApiScene::kPassword, {"tester", "local"});
    }

    static std::string pathOf(const User& user) { return std::string(kUsers) + '/' + user.id.text; }

    static std::string jsonOf(const User& user) {
        return R"({"id":")" + user.id.text + R"(","name":")" + user.name + R"(","role":")" +
               std::string(nameOf(user.role)) + R"(","made":"2026-01-02T03:04:05.006Z"})";
    }

    bool letsIn(const std::string& name, const std::string& password) {
        return std::holds_alternative<NewSession>(
            scene.logins.logIn(name, password, "", "127.0.0.1"));
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(UserRoutesTest, UserIsMadeAndCanLogIn) {
    const ReceivedResponse response =
        send("POST", kUsers, R"({"name":"ada","role":"engineer","password":"correct horse"})");

    EXPECT_EQ(201, response.status);
    const User made = scene.store.accounts().findUser(std::string("ada")).value();
    EXPECT_EQ(jsonOf(made), response.body);
    EXPECT_TRUE(letsIn("ada", "correct horse"));
    EXPECT_THAT(scene.audit(), testing::Contains("administrator user.add ada (role engineer)"));
}

TEST_F(UserRoutesTest, NameIsTakenOnce) {
    add("ada");

    const ReceivedResponse response =
        send("POST", kUsers, R"({"name":"ada","role":"viewer","password":"correct horse"})");

    EXPECT_EQ(409, response.status);
    EXPECT_THAT(response.body, HasSubstr("There is a user with the name ada"));
}

TEST_F(UserRoutesTest, WhatIsNoUserIsRefusedWithTheReason) {
    const auto detail = [&](const std::string& body) {
        const ReceivedResponse response = send("POST", kUsers, body);
        rapidjson::Document document;
        document.Parse(response.body.c_str());
        return std::to_string(response.status) + ' ' + document["detail"].GetString();
    };

    EXPECT_EQ("400 \"role\" is missing.", detail(R"({"name":"a","password":"correct horse"})"));
    EXPECT_EQ("400 \"role\" may not be \"root\".",
              detail(R"({"name":"a","role":"root","password":"correct horse"})"));
    EXPECT_EQ("400 A password has 12 characters or more.",
              detail(R"({"name":"a","role":"viewer","password":"short"})"));
    EXPECT_EQ("400 The name of a user is 1 to 64 letters, digits, dots, dashes, underscores and @.",
              detail(R"({"name":"<b>","role":"viewer","password":"correct horse"})"));
    EXPECT_EQ("400 \"admin\" is unknown here.",
              detail(R"({"name":"a","role":"viewer","password":"correct horse","admin":true})"));
    EXPECT_TRUE(scene.store.accounts().listUsers().empty());
}

TEST_F(UserRoutesTest, UsersAreListedInPagesWithoutTheirPasswords) {
    const User eve = add("eve");
    const User ada = add("ada", Role::Administrator);
    const User bob = add("bob", Role::Engineer);

    EXPECT_EQ(
        R"({"items":[)" + jsonOf(ada) + ',' + jsonOf(bob) + ',' + jsonOf(eve) + R"(],"next":null})",
        send("GET", kUsers).body);
    EXPECT_EQ(R"({"items":[)" + jsonOf(ada) + ',' + jsonOf(bob) + R"(],"next":"bob"})",
              send("GET", std::string(kUsers) + "?limit=2").body);
}

TEST_F(UserRoutesTest, PageGoesOnAlthoughItsUserHasGone) {
    add("ada");
    const User bob = add("bob");
    const User eve = add("eve");
    ASSERT_EQ(204, send("DELETE", pathOf(bob)).status);

    EXPECT_EQ(R"({"items":[)" + jsonOf(eve) + R"(],"next":null})",
              send("GET", std::string(kUsers) + "?limit=2&cursor=bob").body);
    EXPECT_EQ(R"({"items":[],"next":null})", send("GET", std::string(kUsers) + "?cursor=zoe").body);
}

TEST_F(UserRoutesTest, RoleAndPasswordChangeTogetherAndEndTheSessions) {
    add("boss", Role::Administrator);
    const NewSession session = scene.logIn("ada", Role::Viewer);
    const User ada = scene.store.accounts().findUser(std::string("ada")).value();

    const ReceivedResponse response =
        send("PATCH", pathOf(ada), R"({"role":"engineer","password":"another password"})");

    EXPECT_EQ(200, response.status);
    EXPECT_EQ(jsonOf(scene.store.accounts().findUser(ada.id).value()), response.body);
    EXPECT_EQ(Role::Engineer, scene.store.accounts().findUser(ada.id)->role);
    EXPECT_FALSE(scene.logins.find(session.cookie));
    EXPECT_TRUE(letsIn("ada", "another password"));
}

TEST_F(UserRoutesTest, BadPasswordChangesNotEvenTheRole) {
    const User ada = add("ada");

    EXPECT_EQ(400, send("PATCH", pathOf(ada), R"({"role":"engineer","password":"short"})").status);

    EXPECT_EQ(Role::Viewer, scene.store.accounts().findUser(ada.id)->role);
    EXPECT_EQ(400, send("PATCH", pathOf(ada), "{}").status);
}

TEST_F(UserRoutesTest, LastAdministratorStaysOne) {
    const User boss = add("boss", Role::Administrator);

    const ReceivedResponse lower = send("PATCH", pathOf(boss), R"({"role":"viewer"})");
    const ReceivedResponse removed = send("DELETE", pathOf(boss));

    EXPECT_EQ(409, lower.status);
    EXPECT_EQ(409, removed.status);
    EXPECT_EQ(R"({"title":"Conflict","status":409,"detail":)"
              R"("This is the last administrator: nobody could add users any more."})",
              removed.body);
    EXPECT_EQ(Role::Administrator, scene.store.accounts().findUser(boss.id)->role);
}

TEST_F(UserRoutesTest, RemovedUserIsOut) {
    const NewSession session = scene.logIn("ada", Role::Viewer);
    const User ada = scene.store.accounts().findUser(std::string("ada")).value();

    EXPECT_EQ(204, send("DELETE", pathOf(ada)).status);

    EXPECT_FALSE(scene.logins.find(session.cookie));
    EXPECT_EQ(404, send("DELETE", pathOf(ada)).status);
    EXPECT_EQ(404, send("PATCH", pathOf(ada), R"({"role":"viewer"})").status);
}

TEST_F(UserRoutesTest, OthersSeeNobodyAndChangeNothing) {
    const User ada = add("ada");

    EXPECT_EQ(403, scene.get(kUsers).status);
    EXPECT_EQ(403, scene.send("PATCH", pathOf(ada), R"({"role":"administrator"})").status);
    EXPECT_EQ(403, scene.send("DELETE", pathOf(ada)).status);
}

}  // namespace
}  // namespace kolvan::test
