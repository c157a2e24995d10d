#include "companions/server/api/SessionCookie.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kolvan::server::api {
namespace {

using http::Awaitable;
using http::Request;
using http::RequestHead;

/// A request without a body.
class NoBody final : public http::RequestSource {
public:
    Awaitable<std::size_t> readSome(std::span<char> /*buffer*/) override { co_return 0; }
    Awaitable<void> readOnPool(boost::asio::thread_pool& /*threads*/,
                               http::TakePiece take) override {
        take({});
        co_return;
    }
    void watchForHangUp(std::function<void()> /*gone*/) override {}
};

class SessionCookieTest : public testing::Test {
protected:
    static RequestHead head(bool secure, const std::string& cookies = "") {
        RequestHead made;
        made.secure = secure;
        if (!cookies.empty()) {
            made.fields.emplace_back("Cookie", cookies);
        }
        return made;
    }

    NoBody none;
};

TEST_F(SessionCookieTest, NoCodeReadsItAndOtherSitesDoNotSendIt) {
    const Request request(head(/*secure=*/false), none);

    EXPECT_EQ("kolvan_session=abc; Path=/; HttpOnly; SameSite=Strict",
              sessionCookie(request, "", "abc"));
    EXPECT_EQ("kolvan_session=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0",
              endedSessionCookie(request, ""));
}

TEST_F(SessionCookieTest, OverTlsItIsOfThisHostAndGoesOverTlsOnly) {
    const Request request(head(/*secure=*/true), none);

    EXPECT_EQ("__Host-kolvan_session=abc; Path=/; HttpOnly; SameSite=Strict; Secure",
              sessionCookie(request, "", "abc"));
    EXPECT_EQ("__Host-kolvan_session=; Path=/; HttpOnly; SameSite=Strict; Secure; Max-Age=0",
              endedSessionCookie(request, ""));
}

TEST_F(SessionCookieTest, TlsOfAProxyInFrontCountsAsWell) {
    const Request request(head(/*secure=*/false, "__Host-kolvan_session=abc"), none);

    EXPECT_EQ("__Host-kolvan_session=abc; Path=/; HttpOnly; SameSite=Strict; Secure",
              sessionCookie(request, "https://profiles.example", "abc"));
    EXPECT_EQ("abc", shownSession(request, "https://profiles.example"));
    EXPECT_EQ("", shownSession(request, "http://profiles.example"));
}

TEST_F(SessionCookieTest, CookieThatNeighboursCouldHavePlantedIsNotLookedAtOverTls) {
    const Request request(head(/*secure=*/true, "kolvan_session=planted"), none);

    EXPECT_EQ("", shownSession(request, ""));
}

TEST_F(SessionCookieTest, ItIsFoundAmongOthers) {
    const Request request(
        head(/*secure=*/false, "a=1;xkolvan_session=2;  kolvan_session=abc=; kolvan_session=3"),
        none);
    const Request without(head(/*secure=*/false, "kolvan_session; =kolvan_session;;"), none);

    EXPECT_EQ("abc=", shownSession(request, ""));
    EXPECT_EQ("", shownSession(without, ""));
}

}  // namespace
}  // namespace kolvan::server::api
