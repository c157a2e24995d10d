#include "companions/server/api/Query.h"

#include "companions/server/http/HttpError.h"
#include "tests/companions/server/support/FailureOf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace kolvan::server::api {
namespace {

using testing::ElementsAre;

/// Where no body comes from.
class NoSource final : public http::RequestSource {
public:
    http::Awaitable<std::size_t> readSome(std::span<char> /*buffer*/) override { co_return 0; }
    http::Awaitable<void> readOnPool(boost::asio::thread_pool& /*threads*/,
                                     http::TakePiece take) override {
        take({});
        co_return;
    }
    void watchForHangUp(std::function<void()> /*gone*/) override {}
};

Query queryOf(const std::string& text) {
    NoSource source;
    http::RequestHead head;
    head.target.rawQuery = text;
    const http::Request request(std::move(head), source);
    return Query(request, {"text", "state", "time", "limit", "cursor"});
}

TEST(QueryTest, ValuesAreDecoded) {
    EXPECT_EQ("a b&c=\xC3\xA4", queryOf("text=a+b%26c%3D%C3%A4").text("text"));
    EXPECT_EQ("", queryOf("text=").text("text"));
    EXPECT_EQ(std::nullopt, queryOf("").text("text"));
}

TEST(QueryTest, NameThatTheRouteDoesNotKnowIsAProblem) {
    EXPECT_EQ("There is no parameter \"txet\" here.", failureOf([] { queryOf("txet=a"); }));
}

TEST(QueryTest, NameThatMayStandOnceMayNotStandTwice) {
    EXPECT_EQ("\"text\" may be given once.",
              failureOf([] { queryOf("text=a&text=b").text("text"); }));
    EXPECT_THAT(queryOf("state=done&state=failed").words<CollectionState>("state"),
                ElementsAre(CollectionState::Done, CollectionState::Failed));
}

TEST(QueryTest, WordThatIsNoneIsAProblem) {
    EXPECT_EQ("\"Done\" is no value for \"state\".",
              failureOf([] { queryOf("state=Done").words<CollectionState>("state"); }));
    EXPECT_EQ(CollectionState::Done, queryOf("state=done").word<CollectionState>("state"));
}

TEST(QueryTest, NumberIsWholeAndWithinItsLimits) {
    EXPECT_EQ(-5, queryOf("limit=-5").number("limit", -5, 5));
    for (const char* value : {"", "6", "-6", "1.0", "+1", "0x1", "1 ", "%201", "1e0",
                              "99999999999999999999", "limit"}) {
        EXPECT_THROW(queryOf(std::string("limit=") + value).number("limit", -5, 5), http::HttpError)
            << value;
    }
}

TEST(QueryTest, MomentHasAZone) {
    EXPECT_EQ(fromRfc3339("2026-01-02T03:04:05Z"),
              queryOf("time=2026-01-02T04:04:05%2B01:00").time("time"));
    for (const char* value :
         {"", "now", "2026-01-02", "2026-01-02T03:04:05", "2026-13-02T03:04:05Z"}) {
        EXPECT_THROW(queryOf(std::string("time=") + value).time("time"), http::HttpError) << value;
    }
}

TEST(QueryTest, PageHasFiftyItemsWhereNobodySaysMore) {
    EXPECT_EQ(50U, queryOf("").page().size);
    EXPECT_EQ("", queryOf("").page().after);
    const PageRequest page = queryOf("limit=500&cursor=7").page();
    EXPECT_EQ(500U, page.size);
    EXPECT_EQ("7", page.after);
    EXPECT_THROW(queryOf("limit=0").page(), http::HttpError);
    EXPECT_THROW(queryOf("limit=501").page(), http::HttpError);
}

TEST(QueryTest, BrokenEncodingIsAProblem) {
    EXPECT_EQ("The query of the address has a broken percent-encoding.",
              failureOf([] { queryOf("text=%2"); }));
}

}  // namespace
}  // namespace kolvan::server::api
