#include "companions/server/accounts/Tokens.h"

#include "companions/server/accounts/Permissions.h"
#include "companions/server/accounts/Secret.h"
#include "tests/companions/server/accounts/AccountsTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::MatchesRegex;

class TokensTest : public AccountsTest {};

TEST_F(TokensTest, SecretsHave256BitsInLettersForAddresses) {
    std::set<std::string> secrets;
    for (int count = 0; count < 1000; ++count) {
        const Secret secret = makeSecret("kst_");
        EXPECT_THAT(secret.text, MatchesRegex("kst_[A-Za-z0-9_-]{43}"));
        EXPECT_EQ(sha256(secret.text), secret.hash);
        secrets.insert(secret.text);
    }

    EXPECT_EQ(1000U, secrets.size());
}

TEST_F(TokensTest, ApiTokenIsFoundByItsText) {
    const auto made = tokens.addApiToken("ci", Role::Engineer, boss);

    const auto found = tokens.findApiToken(made.text, kAddress);

    ASSERT_TRUE(found);
    EXPECT_EQ(made.token.id, found->id);
    EXPECT_EQ(Role::Engineer, found->role);
    EXPECT_EQ("boss", found->madeBy);
    EXPECT_EQ(0U, made.text.find("kst_"));
    EXPECT_THAT(audit(), ElementsAre("boss@192.0.2.7 token.add ci (role engineer)"));
}

TEST_F(TokensTest, AgentTokenIsFoundByItsText) {
    const auto made = tokens.addAgentToken("all of them", true, boss);

    const auto found = tokens.findAgentToken(made.text, kAddress, "host");

    ASSERT_TRUE(found);
    EXPECT_TRUE(found->shared);
    EXPECT_EQ(0U, made.text.find("kat_"));
    EXPECT_THAT(audit(), ElementsAre("boss@192.0.2.7 agentToken.add all of them (shared)"));
}

TEST_F(TokensTest, OneKindOpensNothingOfTheOther) {
    const auto api = tokens.addApiToken("a", Role::Administrator, boss);
    const auto agent = tokens.addAgentToken("b", false, boss);

    EXPECT_FALSE(tokens.findAgentToken(api.text, kAddress, "host"));
    EXPECT_FALSE(tokens.findApiToken(agent.text, kAddress));
}

TEST_F(TokensTest, UnknownTokensAreWrittenDown) {
    EXPECT_FALSE(tokens.findApiToken("kst_guess", kAddress));
    EXPECT_FALSE(tokens.findAgentToken("kat_guess", kAddress, std::string(1000, 'h')));

    EXPECT_THAT(audit(), ElementsAre("@192.0.2.1 token.refused  ()",
                                     "@192.0.2.1 agent.refused " + std::string(255, 'h') + " ()"));
}

TEST_F(TokensTest, RevokedTokensOpenNothing) {
    const auto api = tokens.addApiToken("a", Role::Administrator, boss);
    const auto agent = tokens.addAgentToken("b", false, boss);

    EXPECT_TRUE(tokens.revokeApiToken(api.token.id, boss));
    EXPECT_TRUE(tokens.revokeAgentToken(agent.token.id, boss));
    EXPECT_FALSE(tokens.revokeApiToken(api.token.id, boss));
    EXPECT_FALSE(tokens.revokeAgentToken(agent.token.id, boss));

    EXPECT_EQ(4U, audit().size());
    EXPECT_EQ("boss@192.0.2.7 agentToken.revoke b ()", audit().back());
    EXPECT_FALSE(tokens.findApiToken(api.text, kAddress));
    EXPECT_FALSE(tokens.findAgentToken(agent.text, kAddress, ""));
}

TEST_F(TokensTest, TokenIsInUseUntilItIsRevoked) {
    const auto made = tokens.addApiToken("ci", Role::Viewer, boss);
    const ApiToken found = tokens.findApiToken(made.text, kAddress).value();
    EXPECT_TRUE(tokens.isInUse(found));

    EXPECT_TRUE(tokens.revokeApiToken(found.id, boss));

    EXPECT_FALSE(tokens.isInUse(found));
}

TEST_F(TokensTest, LastUseIsKnownToTheMinute) {
    const auto made = tokens.addApiToken("a", Role::Viewer, boss);
    const auto lastUse = [&] { return store.accounts().listTokens()[0].lastUsed; };
    EXPECT_EQ(std::nullopt, lastUse());
    const UtcTime first = clock.utc();
    (void)tokens.findApiToken(made.text, kAddress);
    clock.advance(59s);
    (void)tokens.findApiToken(made.text, kAddress);
    EXPECT_EQ(first, lastUse());

    clock.advance(1s);
    (void)tokens.findApiToken(made.text, kAddress);

    EXPECT_EQ(first + 1min, lastUse());
}

TEST_F(TokensTest, NamesWithoutLengthOrWithControlCharactersAreRefused) {
    const std::string text = "The name of a token is 1 to 100 bytes without control characters";

    EXPECT_EQ(text, failureOf([&] { tokens.addApiToken("", Role::Viewer, boss); }));
    EXPECT_EQ(text, failureOf([&] { tokens.addAgentToken("a\x1B[2J", false, boss); }));
    EXPECT_EQ(text, failureOf([&] { tokens.addAgentToken(std::string(101, 'a'), false, boss); }));
    EXPECT_EQ("nothing failed",
              failureOf([&] { tokens.addAgentToken("Büro, 2. Stock", false, boss); }));
}

TEST_F(TokensTest, StrangersCannotFillTheAudit) {
    for (int count = 0; count < 500; ++count) {
        (void)tokens.findApiToken("guess", kAddress);
    }
    EXPECT_EQ(60U, audit().size());
    clock.advance(1min);

    (void)tokens.findApiToken("guess", kAddress);

    EXPECT_EQ(62U, audit().size());
    EXPECT_EQ("@ refusals.leftOut  (440)", audit()[60]);
}

TEST_F(TokensTest, HigherRolesHaveAllThatLowerOnesHave) {
    EXPECT_TRUE(may(Role::Viewer, Permission::Look));
    EXPECT_FALSE(may(Role::Viewer, Permission::Collect));
    EXPECT_TRUE(may(Role::Engineer, Permission::Look));
    EXPECT_TRUE(may(Role::Engineer, Permission::Collect));
    for (const auto permission : {Permission::ManageAgents, Permission::ManageAccounts,
                                  Permission::ReadAudit, Permission::ChangeSettings}) {
        EXPECT_FALSE(may(Role::Viewer, permission));
        EXPECT_FALSE(may(Role::Engineer, permission));
        EXPECT_TRUE(may(Role::Administrator, permission));
    }
}

class UsersTest : public AccountsTest {};

TEST_F(UsersTest, ChangesAreWrittenDown) {
    const User user = users.add("anna", Role::Viewer, kPassword, boss);

    EXPECT_EQ(UserChange::Made, users.change(user.id, Role::Engineer, {}, boss));
    EXPECT_EQ(UserChange::Made, users.change(user.id, {}, "another password", boss));
    EXPECT_EQ(UserChange::Made, users.remove(user.id, boss));
    EXPECT_EQ(UserChange::NotFound, users.remove(user.id, boss));

    EXPECT_THAT(audit(), ElementsAre("boss@192.0.2.7 user.add anna (role viewer)",
                                     "boss@192.0.2.7 user.role anna (role engineer)",
                                     "boss@192.0.2.7 user.password anna ()",
                                     "boss@192.0.2.7 user.remove anna ()"));
}

TEST_F(UsersTest, NewPasswordReplacesTheOld) {
    const User user = users.add("anna", Role::Viewer, kPassword, boss);

    users.change(user.id, {}, "another password", boss);

    EXPECT_TRUE(
        std::holds_alternative<LoginRefused>(logins.logIn("anna", kPassword, "", kAddress)));
    EXPECT_TRUE(
        std::holds_alternative<NewSession>(logins.logIn("anna", "another password", "", kAddress)));
}

TEST_F(UsersTest, BadNamesAndPasswordsAreRefused) {
    EXPECT_NE("nothing failed",
              failureOf([&] { users.add("anna smith", Role::Viewer, kPassword, boss); }));
    EXPECT_NE("nothing failed", failureOf([&] { users.add("anna", Role::Viewer, "x", boss); }));

    EXPECT_TRUE(store.accounts().listUsers().empty());
    EXPECT_THAT(audit(), ElementsAre());
}

}  // namespace
}  // namespace kolvan::server
