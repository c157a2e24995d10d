#include "companions/server/store/StoreError.h"
#include "tests/companions/server/store/StoreTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;

class AccountStoreTest : public StoreTest {
protected:
    AccountStore& accounts() { return store->accounts(); }

    Session addSession(const User& user, const std::string& value) {
        const Session session{sha256(value), user.id,     "cross",
                              "192.0.2.1",   clock.utc(), clock.utc()};
        EXPECT_TRUE(accounts().addSession(session, accounts().findUser(user.id)->passwordHash));
        return session;
    }
};

TEST_F(AccountStoreTest, UserIsFoundByNameAndById) {
    const User user = accounts().addUser("anna", Role::Engineer, "hash");
    reopen();

    const auto byName = accounts().findUser("anna");
    const auto byId = accounts().findUser(user.id);

    ASSERT_TRUE(byName && byId);
    EXPECT_EQ(user.id, byName->id);
    EXPECT_EQ("anna", byId->name);
    EXPECT_EQ(Role::Engineer, byId->role);
    EXPECT_EQ("hash", byId->passwordHash);
    EXPECT_FALSE(accounts().findUser("ANNA"));
}

TEST_F(AccountStoreTest, NameIsGivenOnce) {
    accounts().addUser("anna", Role::Viewer, "hash");

    EXPECT_EQ("There is a user with the name anna",
              failureOf([&] { accounts().addUser("anna", Role::Viewer, "hash"); }));
}

TEST_F(AccountStoreTest, UsersAreListedByName) {
    accounts().addUser("zoe", Role::Viewer, "");
    accounts().addUser("anna", Role::Viewer, "");

    ASSERT_EQ(2U, accounts().listUsers().size());
    EXPECT_EQ("anna", accounts().listUsers()[0].name);
}

TEST_F(AccountStoreTest, NewPasswordOrRoleEndsTheSessions) {
    const User boss = accounts().addUser("boss", Role::Administrator, "old");
    const User user = accounts().addUser("anna", Role::Engineer, "old");
    const Session other = addSession(boss, "boss's");

    const Session first = addSession(user, "1");
    EXPECT_EQ(UserChange::Made, accounts().changeUser(user.id, {}, "new"));
    EXPECT_FALSE(accounts().findSession(first.hash));
    EXPECT_EQ("new", accounts().findUser(user.id)->passwordHash);

    const Session second = addSession(user, "2");
    EXPECT_EQ(UserChange::Made, accounts().changeUser(user.id, Role::Viewer, {}));
    EXPECT_FALSE(accounts().findSession(second.hash));
    EXPECT_EQ(Role::Viewer, accounts().findUser(user.id)->role);
    EXPECT_EQ("new", accounts().findUser(user.id)->passwordHash);
    EXPECT_TRUE(accounts().findSession(other.hash));
}

TEST_F(AccountStoreTest, RehashedPasswordEndsNoSession) {
    const User user = accounts().addUser("anna", Role::Engineer, "old");
    const Session session = addSession(user, "1");

    accounts().rehashPassword(user.id, "old", "better");

    EXPECT_EQ("better", accounts().findUser(user.id)->passwordHash);
    EXPECT_TRUE(accounts().findSession(session.hash));
}

TEST_F(AccountStoreTest, PasswordThatHasChangedMeanwhileStays) {
    const User user = accounts().addUser("anna", Role::Engineer, "old");
    accounts().changeUser(user.id, {}, "new");
    const Session session = addSession(user, "1");

    accounts().rehashPassword(user.id, "old", "better");
    EXPECT_FALSE(accounts().replacePassword(user.id, "old", "own"));

    EXPECT_EQ("new", accounts().findUser(user.id)->passwordHash);
    EXPECT_TRUE(accounts().findSession(session.hash));
}

TEST_F(AccountStoreTest, ReplacedPasswordEndsTheSessionsOfItsUserAlone) {
    const User user = accounts().addUser("anna", Role::Engineer, "old");
    const Session ended = addSession(user, "1");
    const Session other = addSession(accounts().addUser("ben", Role::Viewer, "old"), "2");

    EXPECT_TRUE(accounts().replacePassword(user.id, "old", "own"));

    EXPECT_EQ("own", accounts().findUser(user.id)->passwordHash);
    EXPECT_FALSE(accounts().findSession(ended.hash));
    EXPECT_TRUE(accounts().findSession(other.hash));
}

TEST_F(AccountStoreTest, NoSessionBeginsWithAPasswordThatHasChangedMeanwhile) {
    const User user = accounts().addUser("anna", Role::Engineer, "old");
    accounts().changeUser(user.id, {}, "new");
    const Session late{sha256("1"), user.id, "", "", clock.utc(), clock.utc()};

    EXPECT_FALSE(accounts().addSession(late, "old"));

    EXPECT_FALSE(accounts().findSession(late.hash));
}

TEST_F(AccountStoreTest, SomebodyIsAlwaysLeftWhoMayAddUsers) {
    const User first = accounts().addUser("first", Role::Administrator, "");
    EXPECT_EQ(UserChange::LastAdministrator, accounts().removeUser(first.id));
    EXPECT_EQ(UserChange::LastAdministrator, accounts().changeUser(first.id, Role::Viewer, {}));
    EXPECT_EQ(UserChange::Made, accounts().changeUser(first.id, Role::Administrator, {}));
    accounts().addUser("second", Role::Administrator, "");

    EXPECT_EQ(UserChange::Made, accounts().removeUser(first.id));

    EXPECT_FALSE(accounts().findUser("first"));
    EXPECT_EQ(UserChange::NotFound, accounts().removeUser(first.id));
    EXPECT_EQ(UserChange::NotFound, accounts().changeUser(first.id, {}, "x"));
}

TEST_F(AccountStoreTest, RemovedUserHasNoSessions) {
    const User user = accounts().addUser("anna", Role::Engineer, "");
    const Session session = addSession(user, "1");

    accounts().removeUser(user.id);

    EXPECT_FALSE(accounts().findSession(session.hash));
}

TEST_F(AccountStoreTest, FirstLoginCodeMakesOneAdministrator) {
    accounts().setFirstLoginCode(sha256("code"), clock.utc() + 1h);

    EXPECT_FALSE(accounts().addFirstUser(sha256("guess"), clock.utc(), "eve", ""));
    const auto user = accounts().addFirstUser(sha256("code"), clock.utc(), "anna", "hash");

    ASSERT_TRUE(user);
    EXPECT_EQ(Role::Administrator, user->role);
    EXPECT_EQ("hash", accounts().findUser("anna")->passwordHash);
    EXPECT_FALSE(accounts().addFirstUser(sha256("code"), clock.utc(), "eve", ""));
    EXPECT_EQ(1U, accounts().listUsers().size());
}

TEST_F(AccountStoreTest, LaterCodeReplacesTheEarlierOne) {
    accounts().setFirstLoginCode(sha256("early"), clock.utc() + 1h);
    accounts().setFirstLoginCode(sha256("late"), clock.utc() + 1h);

    EXPECT_FALSE(accounts().addFirstUser(sha256("early"), clock.utc(), "eve", ""));
    EXPECT_TRUE(accounts().addFirstUser(sha256("late"), clock.utc(), "anna", ""));
}

TEST_F(AccountStoreTest, CodeIsWorthNothingAfterItsTime) {
    accounts().setFirstLoginCode(sha256("code"), clock.utc() + 1h);

    EXPECT_FALSE(accounts().addFirstUser(sha256("code"), clock.utc() + 1h, "anna", ""));
}

TEST_F(AccountStoreTest, CodeIsWorthNothingOnceThereIsAUser) {
    accounts().setFirstLoginCode(sha256("code"), clock.utc() + 1h);
    accounts().addUser("boss", Role::Administrator, "");

    EXPECT_FALSE(accounts().addFirstUser(sha256("code"), clock.utc(), "eve", ""));
}

TEST_F(AccountStoreTest, SessionIsKeptUntilItIsRemoved) {
    const User user = accounts().addUser("anna", Role::Engineer, "");
    const Session session = addSession(user, "1");
    clock.advance(5min);
    accounts().touchSession(session.hash);

    const auto found = accounts().findSession(session.hash);

    ASSERT_TRUE(found);
    EXPECT_EQ(user.id, found->user);
    EXPECT_EQ("cross", found->crossSiteToken);
    EXPECT_EQ("192.0.2.1", found->address);
    EXPECT_EQ(session.made, found->made);
    EXPECT_EQ(clock.utc(), found->lastUsed);
    EXPECT_TRUE(accounts().removeSession(session.hash));
    EXPECT_FALSE(accounts().removeSession(session.hash));
    EXPECT_FALSE(accounts().findSession(session.hash));
}

TEST_F(AccountStoreTest, SessionsAreRemovedByAgeAndByIdleness) {
    const User user = accounts().addUser("anna", Role::Engineer, "");
    const Session old = addSession(user, "old");
    clock.advance(1h);
    const Session idle = addSession(user, "idle");
    clock.advance(1h);
    const Session fresh = addSession(user, "fresh");
    accounts().touchSession(old.hash);

    accounts().removeOldSessions(old.made + 1ms, idle.made + 1ms);

    EXPECT_FALSE(accounts().findSession(old.hash));
    EXPECT_FALSE(accounts().findSession(idle.hash));
    EXPECT_TRUE(accounts().findSession(fresh.hash));
}

TEST_F(AccountStoreTest, TokenIsFoundUntilItIsRevoked) {
    const ApiToken token = accounts().addToken("ci", Role::Engineer, "anna", sha256("kst_1"));
    clock.advance(1min);
    accounts().touchToken(token.id);

    const auto found = accounts().findToken(sha256("kst_1"));
    ASSERT_TRUE(found);
    EXPECT_EQ("ci", found->name);
    EXPECT_EQ("anna", found->madeBy);
    EXPECT_EQ(Role::Engineer, found->role);
    EXPECT_EQ(clock.utc(), found->lastUsed);

    EXPECT_TRUE(accounts().revokeToken(token.id));
    EXPECT_FALSE(accounts().revokeToken(token.id));
    EXPECT_FALSE(accounts().findToken(sha256("kst_1")));
    ASSERT_EQ(1U, accounts().listTokens().size());
    EXPECT_EQ(clock.utc(), accounts().listTokens()[0].revoked);
}

TEST_F(AccountStoreTest, NameOfATokenIsFreeOnceItIsRevoked) {
    const ApiToken token = accounts().addToken("ci", Role::Viewer, "anna", sha256("1"));
    EXPECT_EQ("There is an API token with the name ci",
              failureOf([&] { accounts().addToken("ci", Role::Viewer, "anna", sha256("2")); }));
    accounts().revokeToken(token.id);

    accounts().addToken("ci", Role::Viewer, "anna", sha256("3"));

    EXPECT_EQ(2U, accounts().listTokens().size());
}

}  // namespace
}  // namespace kolvan::server
