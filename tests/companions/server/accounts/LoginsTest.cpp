#include "companions/server/accounts/Logins.h"

#include "tests/companions/server/accounts/AccountsTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <variant>
#include <vector>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class LoginsTest : public AccountsTest {
protected:
    NewSession logIn(const std::string& shownCookie = "") {
        return std::get<NewSession>(logins.logIn("anna", kPassword, shownCookie, kAddress));
    }

    /// Tries and fails. @return how long to wait before the next attempt
    std::optional<std::chrono::seconds> refusedWait(const std::string& name,
                                                    const std::string& password,
                                                    const std::string& address = kAddress) {
        return std::get<LoginRefused>(logins.logIn(name, password, "", address)).tryAgainAfter;
    }

    const User anna = users.add("anna", Role::Engineer, kPassword, boss);
};

TEST_F(LoginsTest, RightPasswordMakesASession) {
    const NewSession session = logIn();

    const auto found = logins.find(session.cookie);

    ASSERT_TRUE(found);
    EXPECT_EQ("anna", found->user.name);
    EXPECT_EQ(session.signedIn.crossSiteToken, found->crossSiteToken);
    EXPECT_EQ(43U, session.cookie.size());
    EXPECT_THAT(audit(), ElementsAre("boss@192.0.2.7 user.add anna (role engineer)",
                                     "anna@192.0.2.1 login  ()"));
}

TEST_F(LoginsTest, WrongPasswordAndUnknownUserAreRefusedAlike) {
    EXPECT_EQ(std::nullopt, refusedWait("anna", "wrong horse battery"));
    EXPECT_EQ(std::nullopt, refusedWait("eve", kPassword));
    EXPECT_EQ(std::nullopt, refusedWait("no name\n", kPassword));

    EXPECT_THAT(audit(), ElementsAre("boss@192.0.2.7 user.add anna (role engineer)",
                                     "anna@192.0.2.1 login.refused  (wrong password)",
                                     "eve@192.0.2.1 login.refused  (unknown user)",
                                     "@192.0.2.1 login.refused  (unknown user)"));
}

TEST_F(LoginsTest, CookieOfNobodyFindsNothing) {
    EXPECT_FALSE(logins.find(""));
    EXPECT_FALSE(logins.find("a guess"));
    EXPECT_FALSE(logins.find(logIn().cookie + "x"));
}

TEST_F(LoginsTest, CookieThatWasShownAtLoginIsWorthNothingAfterwards) {
    const NewSession before = logIn();

    const NewSession after = logIn(before.cookie);

    EXPECT_NE(before.cookie, after.cookie);
    EXPECT_FALSE(logins.find(before.cookie));
    EXPECT_TRUE(logins.find(after.cookie));
}

TEST_F(LoginsTest, TwoBrowsersHaveTwoSessions) {
    const NewSession one = logIn();
    const NewSession two = logIn();

    logins.logOut(one.cookie, {"anna", kAddress});

    EXPECT_FALSE(logins.find(one.cookie));
    EXPECT_TRUE(logins.find(two.cookie));
    EXPECT_EQ("anna@192.0.2.1 logout  ()", audit().back());
}

TEST_F(LoginsTest, SessionEndsWhenItIsIdle) {
    const NewSession session = logIn();
    clock.advance(Logins::kLongestIdle - 1ms);
    EXPECT_TRUE(logins.find(session.cookie));
    clock.advance(Logins::kLongestIdle - 1ms);
    EXPECT_TRUE(logins.find(session.cookie));

    clock.advance(Logins::kLongestIdle);

    EXPECT_FALSE(logins.find(session.cookie));
}

TEST_F(LoginsTest, SessionEndsAfterAWeekHoweverBusy) {
    const NewSession session = logIn();
    for (auto age = 0h; age + 7h < Logins::kLongestLife; age += 7h) {
        clock.advance(7h);
        ASSERT_TRUE(logins.find(session.cookie)) << age.count();
    }

    clock.advance(7h);

    EXPECT_FALSE(logins.find(session.cookie));
}

TEST_F(LoginsTest, WhetherASessionIsOpenIsAskedWithoutUsingIt) {
    const NewSession session = logIn();
    EXPECT_TRUE(logins.isOpen(session.cookie));
    EXPECT_FALSE(logins.isOpen("a guess"));

    clock.advance(Logins::kLongestIdle - 1ms);
    EXPECT_TRUE(logins.isOpen(session.cookie));
    clock.advance(1ms);
    EXPECT_FALSE(logins.isOpen(session.cookie));

    logins.logOut(session.cookie, boss);
    EXPECT_FALSE(logins.isOpen(session.cookie));
}

TEST_F(LoginsTest, EndedSessionsAreRemoved) {
    const NewSession session = logIn();
    clock.advance(Logins::kLongestIdle + 1ms);

    logins.removeEnded();

    EXPECT_FALSE(store.accounts().findSession(sha256(session.cookie)));
}

TEST_F(LoginsTest, SecretsAreKeptAsHashesOnly) {
    const NewSession session = logIn();
    store.backUp(directory.entry("backup"));

    const std::string file = test::readFile(directory.entry("backup"));

    EXPECT_EQ(std::string::npos, file.find(session.cookie));
    EXPECT_EQ(std::string::npos, file.find(kPassword));
    EXPECT_NE(std::string::npos, file.find("$argon2id$"));
}

TEST_F(LoginsTest, RequestOfAnotherSiteDoesNotKnowTheToken) {
    const NewSession session = logIn();

    EXPECT_TRUE(Logins::isFrom(session.signedIn, session.signedIn.crossSiteToken));
    EXPECT_FALSE(Logins::isFrom(session.signedIn, ""));
    EXPECT_FALSE(Logins::isFrom(session.signedIn, logIn().signedIn.crossSiteToken));
}

TEST_F(LoginsTest, GuessingIsSlowedDown) {
    for (int guess = 0; guess < 5; ++guess) {
        ASSERT_EQ(std::nullopt, refusedWait("anna", "wrong horse battery")) << guess;
    }

    EXPECT_EQ(1s, refusedWait("anna", kPassword));
    clock.advance(1s);
    EXPECT_EQ(std::nullopt, refusedWait("anna", "wrong horse battery"));
    EXPECT_EQ(2s, refusedWait("anna", kPassword));
    EXPECT_EQ("anna@192.0.2.1 login.refused  (too many attempts)", audit().back());
}

TEST_F(LoginsTest, RightPasswordForgetsTheWrongOnes) {
    for (int round = 0; round < 10; ++round) {
        for (int guess = 0; guess < 4; ++guess) {
            ASSERT_EQ(std::nullopt, refusedWait("anna", "wrong horse battery"));
        }
        logIn();
    }
}

TEST_F(LoginsTest, OldCostIsRenewedAtLogin) {
    const Passwords dearer({2, 16384});
    Logins later(store, clock, dearer, refusals);
    const NewSession before = logIn();
    ASSERT_TRUE(dearer.needsRehash(store.accounts().findUser("anna")->passwordHash));

    (void)std::get<NewSession>(later.logIn("anna", kPassword, "", kAddress));

    EXPECT_FALSE(dearer.needsRehash(store.accounts().findUser("anna")->passwordHash));
    EXPECT_TRUE(logins.find(before.cookie));
    (void)std::get<NewSession>(later.logIn("anna", kPassword, "", kAddress));
}

TEST_F(LoginsTest, OwnPasswordIsChangedByWhoeverKnowsIt) {
    const NewSession elsewhere = logIn();
    const NewSession session = logIn();
    const User user = session.signedIn.user;

    const auto wrong = logins.changePassword(user, "a wrong guess", "another horse", kAddress);
    EXPECT_TRUE(std::holds_alternative<LoginRefused>(wrong));
    EXPECT_TRUE(logins.find(elsewhere.cookie));
    const auto next = logins.changePassword(user, kPassword, "another horse", kAddress);

    ASSERT_TRUE(std::holds_alternative<NewSession>(next));
    EXPECT_FALSE(logins.find(elsewhere.cookie));
    EXPECT_FALSE(logins.find(session.cookie));
    EXPECT_TRUE(logins.find(std::get<NewSession>(next).cookie));
    EXPECT_EQ(std::nullopt, refusedWait("anna", kPassword));
    (void)std::get<NewSession>(logins.logIn("anna", "another horse", "", kAddress));
    EXPECT_THAT(
        audit(),
        ElementsAre("boss@192.0.2.7 user.add anna (role engineer)", "anna@192.0.2.1 login  ()",
                    "anna@192.0.2.1 login  ()", "anna@192.0.2.1 user.password.refused anna ()",
                    "anna@192.0.2.1 user.password anna ()",
                    "anna@192.0.2.1 login.refused  (wrong password)", "anna@192.0.2.1 login  ()"));
}

TEST_F(LoginsTest, OwnPasswordIsNotChangedBehindTheBackOfWhoeverHasChangedItBefore) {
    const User asItWas = logIn().signedIn.user;
    (void)users.change(anna.id, {}, "set by the boss", boss);

    const auto late = logins.changePassword(asItWas, kPassword, "another horse", kAddress);

    EXPECT_TRUE(std::holds_alternative<LoginRefused>(late));
    (void)std::get<NewSession>(logins.logIn("anna", "set by the boss", "", kAddress));
}

TEST_F(LoginsTest, GuessingAPresentPasswordIsSlowedDown) {
    const User user = logIn().signedIn.user;
    std::optional<std::chrono::seconds> wait;
    for (int guess = 0; guess < 7 && !wait; ++guess) {
        const auto refused =
            logins.changePassword(user, "a wrong guess", "another horse", kAddress);
        wait = std::get<LoginRefused>(refused).tryAgainAfter;
    }

    EXPECT_TRUE(wait);
}

TEST_F(LoginsTest, LoginThatIsUnderWayDoesNotOutliveTheChangeOfThePassword) {
    for (int round = 0; round < 200; ++round) {
        const std::string before = "password " + std::to_string(round) + " of anna";
        (void)users.change(anna.id, {}, before, boss);
        auto login = std::async(std::launch::async,
                                [&] { return logins.logIn("anna", before, "", kAddress); });

        (void)users.change(anna.id, {}, kPassword, boss);

        if (const auto result = login.get(); std::holds_alternative<NewSession>(result)) {
            ASSERT_FALSE(logins.isOpen(std::get<NewSession>(result).cookie)) << round;
        }
        (void)logIn();  // or the throttle would refuse the next ones
    }
}

TEST_F(LoginsTest, LoginsAtOnceAreAllLetInWhileTheCostIsRenewed) {
    const Passwords dearer({2, 16384});
    Logins later(store, clock, dearer, refusals);
    std::vector<std::future<bool>> results;
    for (int number = 0; number < 4; ++number) {
        results.push_back(std::async(std::launch::async, [&] {
            return std::holds_alternative<NewSession>(later.logIn("anna", kPassword, "", kAddress));
        }));
    }

    for (std::future<bool>& letIn : results) {
        EXPECT_TRUE(letIn.get());
    }
}

TEST_F(LoginsTest, ThereIsNoFirstLoginOnceThereIsAUser) {
    EXPECT_FALSE(logins.makeFirstLoginCode());
}

class FirstLoginCodeTest : public AccountsTest {
protected:
    std::variant<NewSession, LoginRefused> redeem(const std::string& code,
                                                  const std::string& name = "anna") {
        return logins.redeemFirstLoginCode(code, name, kPassword, kAddress);
    }
};

TEST_F(FirstLoginCodeTest, CodeMakesAnAdministratorAndLetsIn) {
    const auto code = logins.makeFirstLoginCode();
    ASSERT_TRUE(code);

    const NewSession session = std::get<NewSession>(redeem(*code));

    EXPECT_EQ(Role::Administrator, logins.find(session.cookie)->user.role);
    EXPECT_THAT(audit(), ElementsAre("anna@192.0.2.1 login.first anna ()"));
    (void)std::get<NewSession>(logins.logIn("anna", kPassword, "", kAddress));
}

TEST_F(FirstLoginCodeTest, CodeWorksOnceAndForADay) {
    const auto early = logins.makeFirstLoginCode();
    clock.advance(Logins::kLifeOfFirstCode);
    EXPECT_TRUE(std::holds_alternative<LoginRefused>(redeem(*early)));
    const auto code = logins.makeFirstLoginCode();
    EXPECT_TRUE(std::holds_alternative<LoginRefused>(redeem(*early)));
    EXPECT_TRUE(std::holds_alternative<NewSession>(redeem(*code)));

    EXPECT_TRUE(std::holds_alternative<LoginRefused>(redeem(*code, "eve")));
    EXPECT_EQ(1U, store.accounts().listUsers().size());
}

TEST_F(FirstLoginCodeTest, BadNameOrPasswordLeavesTheCodeValid) {
    const auto code = logins.makeFirstLoginCode();

    EXPECT_EQ("The name of a user is 1 to 64 letters, digits, dots, dashes, underscores and @",
              failureOf([&] { redeem(*code, "two words"); }));
    EXPECT_EQ("A password has 12 characters or more",
              failureOf([&] { logins.redeemFirstLoginCode(*code, "anna", "short", kAddress); }));

    EXPECT_TRUE(std::holds_alternative<NewSession>(redeem(*code)));
}

}  // namespace
}  // namespace kolvan::server
