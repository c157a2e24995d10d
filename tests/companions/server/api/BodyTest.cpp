#include "companions/server/api/Body.h"

#include "companions/server/http/HttpError.h"
#include "tests/companions/server/support/NetworkThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::server::api {
namespace {

using testing::ElementsAre;

/// A body that comes in pieces of seven bytes.
class TextSource final : public http::RequestSource {
public:
    explicit TextSource(std::string_view text) : left(text) {}

    http::Awaitable<std::size_t> readSome(std::span<char> buffer) override {
        const std::size_t length = std::min({std::size_t{7}, left.size(), buffer.size()});
        std::copy_n(left.begin(), length, buffer.begin());
        left.remove_prefix(length);
        co_return length;
    }
    http::Awaitable<void> readOnPool(boost::asio::thread_pool& /*threads*/,
                                     http::TakePiece take) override {
        take(left);
        take({});
        co_return;
    }
    void watchForHangUp(std::function<void()> /*gone*/) override {}

private:
    std::string_view left;
};

Body bodyOf(const std::string& text, const std::string& type = "application/json") {
    test::NetworkThread network;
    TextSource source(text);
    http::RequestHead head;
    head.fields = {{"Content-Type", type}};
    http::Request request(std::move(head), source);
    const auto read = [&request]() -> http::Awaitable<std::shared_ptr<Body>> {
        co_return std::make_shared<Body>(co_await Body::read(request));
    };
    return *network.spawn(read()).get();
}

/// Status and sentence of the problem that a call ends with.
template <typename Call>
std::string problemOf(Call&& call) {
    try {
        call();
    } catch (const http::HttpError& error) {
        return std::to_string(error.status()) + ' ' + error.what();
    }
    return "none";
}

TEST(BodyTest, MembersAreRead) {
    const Body body = bodyOf(
        R"({"text":"a","truth":true,"whole":-3,"number":1.5,"list":["x",""],"object":{"in":"b"}})");

    EXPECT_EQ("a", body.text("text", 1));
    EXPECT_EQ(true, body.truth("truth"));
    EXPECT_EQ(-3, body.integer("whole", -3, 3));
    EXPECT_EQ(1.5, body.number("number", 0, 2));
    EXPECT_EQ(-3, body.number("whole", -5, 2));
    EXPECT_THAT(body.texts("list", 2).value(), ElementsAre("x", ""));
    EXPECT_EQ("b", body.object("object").value().needText("in", 1));
}

TEST(BodyTest, WhatIsMissingOrNullIsNothing) {
    const Body body = bodyOf(R"({"null":null})");

    for (const char* name : {"null", "missing"}) {
        EXPECT_FALSE(body.has(name));
        EXPECT_FALSE(body.text(name, 1));
        EXPECT_FALSE(body.truth(name));
        EXPECT_FALSE(body.integer(name, 0, 1));
        EXPECT_FALSE(body.number(name, 0, 1));
        EXPECT_FALSE(body.texts(name, 1));
        EXPECT_FALSE(body.object(name));
        EXPECT_EQ('"' + std::string(name) + "\" is missing.",
                  problemOf([&] { (void)body.needText(name, 1); }).substr(4));
    }
    EXPECT_EQ("400 \"null\" may not be null.", problemOf([&] { body.refuseNull({"null"}); }));
    EXPECT_EQ("none", problemOf([&] { body.refuseNull({"missing"}); }));
}

TEST(BodyTest, OtherTypesAreNamed) {
    const Body body = bodyOf(R"({"a":1,"b":"1","c":[1],"d":1.5,"e":1e300})");

    EXPECT_EQ("400 \"a\" has to be a string.", problemOf([&] { (void)body.text("a", 1); }));
    EXPECT_EQ("400 \"b\" has to be true or false.", problemOf([&] { (void)body.truth("b"); }));
    EXPECT_EQ("400 \"b\" has to be a whole number from 0 to 9.",
              problemOf([&] { (void)body.integer("b", 0, 9); }));
    EXPECT_EQ("400 \"d\" has to be a whole number from 0 to 9.",
              problemOf([&] { (void)body.integer("d", 0, 9); }));
    EXPECT_EQ("400 \"e\" has to be a number from 0.001 to 1000000.",
              problemOf([&] { (void)body.number("e", 0.001, 1'000'000); }));
    EXPECT_EQ("400 \"c\" has to be a list of strings.",
              problemOf([&] { (void)body.texts("c", 1); }));
    EXPECT_EQ("400 \"a\" has to be a list of 1 strings at most.",
              problemOf([&] { (void)body.texts("a", 1); }));
    EXPECT_EQ("400 \"a\" has to be an object.", problemOf([&] { (void)body.object("a"); }));
}

TEST(BodyTest, LimitOfATextIsInCharacters) {
    const Body body = bodyOf("{\"a\":\"\xE2\x82\xAC\xE2\x82\xAC\"}");

    EXPECT_EQ("\xE2\x82\xAC\xE2\x82\xAC", body.text("a", 2));
    EXPECT_EQ("400 \"a\" may have 1 characters at most.",
              problemOf([&] { (void)body.text("a", 1); }));
}

TEST(BodyTest, NameThatTheRouteDoesNotKnowIsAProblem) {
    const Body body = bodyOf(R"({"a":1,"b":2})");

    EXPECT_EQ("none", problemOf([&] { body.allow({"a", "b"}); }));
    EXPECT_EQ("400 \"b\" is unknown here.", problemOf([&] { body.allow({"a"}); }));
}

TEST(BodyTest, NameThatStandsThereTwiceIsAProblem) {
    const Body body = bodyOf(R"({"role":"viewer","role":"administrator"})");

    EXPECT_EQ("400 \"role\" is given twice.", problemOf([&] { body.allow({"role"}); }));
}

TEST(BodyTest, OnlyJsonIsRead) {
    EXPECT_EQ("none", problemOf([] { bodyOf("{}", "Application/JSON ; charset=utf-8"); }));
    for (const char* type :
         {"", "text/plain", "application/jsonp", "application/x-www-form-urlencoded"}) {
        EXPECT_EQ("415 The body has to be application/json.",
                  problemOf([&] { bodyOf("{}", type); }))
            << type;
    }
}

TEST(BodyTest, WhatIsNoObjectIsAProblem) {
    EXPECT_EQ("400 The body has to be a JSON object.", problemOf([] { bodyOf("[]"); }));
    for (const char* text : {"", "{", "{}{}", "{\"a\":\"\xFF\"}", "{'a':1}", "{\"a\":NaN}",
                             "{\"a\":1,}", "\xEF\xBB\xBF"}) {
        EXPECT_EQ("400 The body is no JSON: ", problemOf([&] { bodyOf(text); }).substr(0, 25))
            << text;
    }
    EXPECT_EQ("400 The body is no JSON: Missing a name for object member. At byte 1.",
              problemOf([] { bodyOf("{1}"); }));
}

TEST(BodyTest, DeepNestingIsHarmless) {
    const std::string deep = std::string(30'000, '[') + std::string(30'000, ']');

    EXPECT_EQ("400 \"a\" has to be a string.",
              problemOf([&] { (void)bodyOf("{\"a\":" + deep + '}').text("a", 1); }));
}

}  // namespace
}  // namespace kolvan::server::api
