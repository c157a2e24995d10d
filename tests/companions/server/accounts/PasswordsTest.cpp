#include "companions/server/accounts/Passwords.h"

#include "tests/companions/server/accounts/AccountsTest.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server {
namespace {

class PasswordsTest : public AccountsTest {};

TEST_F(PasswordsTest, MatchesItsOwnHashOnly) {
    const std::string hash = passwords.hash("correct horse");

    EXPECT_TRUE(passwords.matches("correct horse", hash));
    EXPECT_FALSE(passwords.matches("correct hors", hash));
    EXPECT_FALSE(passwords.matches("", hash));
    EXPECT_FALSE(passwords.matches("correct horse", "no hash"));
}

TEST_F(PasswordsTest, SamePasswordHasAnotherHashEachTime) {
    EXPECT_NE(passwords.hash("correct horse"), passwords.hash("correct horse"));
}

TEST_F(PasswordsTest, CostIsTheModerateOneOfArgon2id) {
    const Passwords::Cost cost = Passwords::moderate();

    EXPECT_EQ(3U, cost.operations);
    EXPECT_EQ(256U * 1024 * 1024, cost.memoryBytes);
    EXPECT_EQ(0U, passwords.hash("correct horse").find("$argon2id$v=19$m=8,t=1,p=1$"));
}

TEST_F(PasswordsTest, HashOfAnotherCostIsToBeRenewed) {
    const std::string hash = passwords.hash("correct horse");

    EXPECT_FALSE(passwords.needsRehash(hash));
    EXPECT_TRUE(Passwords({2, 8192}).needsRehash(hash));
    EXPECT_TRUE(Passwords({1, 16384}).needsRehash(hash));
}

TEST_F(PasswordsTest, HashOfNobodyTakesTheSameWorkAndMatchesNothing) {
    const Passwords others(kCheap);

    EXPECT_FALSE(passwords.needsRehash(passwords.hashOfNobody()));  // well formed, and of this cost
    EXPECT_EQ(passwords.hash("correct horse").size(), passwords.hashOfNobody().size());
    EXPECT_NE(others.hashOfNobody(), passwords.hashOfNobody());
    EXPECT_FALSE(passwords.matches("", passwords.hashOfNobody()));
}

TEST_F(PasswordsTest, LengthIsAllThatIsAskedFor) {
    EXPECT_EQ("A password has 12 characters or more",
              failureOf([] { Passwords::check("12345678901"); }));
    EXPECT_EQ("nothing failed", failureOf([] { Passwords::check("123456789012"); }));
    EXPECT_EQ("nothing failed", failureOf([] { Passwords::check(std::string(1024, ' ')); }));
    EXPECT_EQ("A password has 1024 bytes at most",
              failureOf([] { Passwords::check(std::string(1025, 'x')); }));
}

}  // namespace
}  // namespace kolvan::server
