#include "companions/server/accounts/LoginThrottle.h"

#include "tests/companions/server/support/SetClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;

class LoginThrottleTest : public testing::Test {
protected:
    /// Makes attempts, each at once when it is let through. @return the last wait
    std::chrono::seconds waitAfter(int attempts, const std::string& user,
                                   const std::string& address) {
        for (int count = 0; count < attempts; ++count) {
            while (const auto wait = throttle.admit(user, address)) {
                clock.advance(*wait);
            }
        }
        return throttle.admit(user, address).value_or(0s);
    }

    test::SetClock clock;
    LoginThrottle throttle{clock};
};

TEST_F(LoginThrottleTest, WaitDoublesUpToTheLimitOfAUser) {
    EXPECT_EQ(1s, waitAfter(5, "anna", "a"));
    EXPECT_EQ(2s, waitAfter(1, "anna", "b"));
    EXPECT_EQ(4s, waitAfter(1, "anna", "c"));
    for (int address = 0; address < 20; ++address) {
        (void)waitAfter(1, "anna", std::to_string(address));
    }
    EXPECT_EQ(30s, throttle.admit("anna", "d"));
}

TEST_F(LoginThrottleTest, GuessesAtManyUsersFindTheLimitOfTheAddress) {
    for (int user = 0; user < 10; ++user) {
        EXPECT_EQ(std::nullopt, throttle.admit("user " + std::to_string(user), "a"));
    }
    EXPECT_EQ(1s, throttle.admit("another", "a"));
    for (int user = 0; user < 20; ++user) {
        (void)waitAfter(1, "more " + std::to_string(user), "a");
    }

    EXPECT_EQ(15min, throttle.admit("another", "a"));
    EXPECT_EQ(std::nullopt, throttle.admit("another", "b"));
}

TEST_F(LoginThrottleTest, AddressesOfOneNetworkOfIpv6CountAsOne) {
    for (int host = 0; host < 10; ++host) {
        const std::string number = std::to_string(host);
        EXPECT_EQ(std::nullopt, throttle.admit("user " + number, "2001:db8:0:1:a::" + number));
    }

    EXPECT_EQ(1s, throttle.admit("another", "2001:db8:0:1::ffff"));
    EXPECT_EQ(std::nullopt, throttle.admit("another", "2001:db8:0:2::ffff"));
    EXPECT_EQ(1s, throttle.admit("another one", "2001:db8:0:1:b::"));
}

TEST_F(LoginThrottleTest, AddressesOfIpv4InIpv6AreTheirOwn) {
    for (int host = 0; host < 20; ++host) {
        const std::string number = std::to_string(host);
        EXPECT_EQ(std::nullopt, throttle.admit("user " + number, "::ffff:192.0.2." + number));
    }
}

TEST_F(LoginThrottleTest, RefusedAttemptsDoNotLengthenTheWait) {
    (void)waitAfter(5, "anna", "a");
    for (int count = 0; count < 100; ++count) {
        EXPECT_EQ(1s, throttle.admit("anna", "a"));
    }
}

TEST_F(LoginThrottleTest, RestOfTheWaitIsTold) {
    ASSERT_EQ(4s, waitAfter(7, "anna", "a"));
    clock.advance(1500ms);

    EXPECT_EQ(3s, throttle.admit("anna", "a"));
}

TEST_F(LoginThrottleTest, ClockThatIsSetShortensNothing) {
    ASSERT_EQ(4s, waitAfter(7, "anna", "a"));
    clock.jump(24h);

    EXPECT_EQ(4s, throttle.admit("anna", "a"));
}

TEST_F(LoginThrottleTest, SuccessForgets) {
    (void)waitAfter(8, "anna", "a");
    clock.advance(1h);
    ASSERT_EQ(std::nullopt, throttle.admit("anna", "a"));
    throttle.succeeded("anna", "a");

    EXPECT_EQ(1s, waitAfter(5, "anna", "a"));
}

TEST_F(LoginThrottleTest, QuietHourForgets) {
    EXPECT_EQ(8s, waitAfter(8, "anna", "a"));
    clock.advance(1h + 1s);

    EXPECT_EQ(1s, waitAfter(5, "anna", "a"));
}

TEST_F(LoginThrottleTest, ManyAddressesPushOutTheOldestOnly) {
    int strangers = 0;
    const auto comeFromEverywhere = [&](int count) {
        for (const int last = strangers + count; strangers < last; ++strangers) {
            const std::string name = std::to_string(strangers);
            EXPECT_EQ(std::nullopt, throttle.admit("user " + name, "address " + name));
            clock.advance(1ms);
        }
    };
    ASSERT_EQ(8s, waitAfter(8, "old", "a"));
    comeFromEverywhere(7'000);
    ASSERT_EQ(8s, waitAfter(8, "new", "b"));

    comeFromEverywhere(3'500);

    EXPECT_EQ(5s, throttle.admit("new", "c"));
    EXPECT_EQ(std::nullopt, throttle.admit("old", "d"));
    EXPECT_EQ(std::nullopt, throttle.admit("old", "d"));
}

TEST_F(LoginThrottleTest, UserIsNotTakenForAnAddress) {
    ASSERT_EQ(1s, waitAfter(5, "same", "a"));

    EXPECT_EQ(std::nullopt, throttle.admit("other", "same"));
}

}  // namespace
}  // namespace kolvan::server
