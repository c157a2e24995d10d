#include "companions/server/http/HttpError.h"
#include "tests/companions/server/support/ServerScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::test {
namespace {

using server::http::Awaitable;
using server::http::HttpError;
using server::http::Request;
using server::http::Response;
using server::http::textResponse;
using testing::IsEmpty;

constexpr const char* kHost = "Host: test\r\n";

std::string post(const std::string& target, const std::string& body) {
    return "POST " + target + " HTTP/1.1\r\n" + kHost +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// Reads a body whole, in one of the ways that there are.
using ReadWhole = Awaitable<std::string> (*)(ServerScene& scene, Request& request);

Awaitable<std::string> inPieces(ServerScene& /*scene*/, Request& request) {
    return request.readAll();
}

Awaitable<std::string> onPool(ServerScene& scene, Request& request) {
    std::string body;
    int ends = 0;
    const auto take = [&](std::string_view piece) {
        body += piece;
        ends += piece.empty() ? 1 : 0;
    };
    co_await request.readOnPool(scene.threads(), take);
    EXPECT_EQ(1, ends);
    co_return body;
}

class RequestBodyTest : public testing::TestWithParam<ReadWhole> {
protected:
    static void addEcho(ServerScene& scene, std::uint64_t limit = 1 << 20) {
        scene.router.add(
            "POST", "/echo",
            [&scene](Request& request) -> Awaitable<Response> {
                std::string body = co_await GetParam()(scene, request);
                co_return textResponse(200, "text/plain", std::move(body));
            },
            limit);
    }
};

TEST_P(RequestBodyTest, SeveralRequestsMayBeSentAtOnce) {
    ServerScene scene;
    addEcho(scene);
    scene.start();
    Client client(scene.port());

    client.send(post("/echo", "one") + post("/echo", "") + post("/echo", "three"));

    EXPECT_EQ("one", client.readResponse().body);
    EXPECT_EQ("", client.readResponse().body);
    EXPECT_EQ("three", client.readResponse().body);
}

TEST_P(RequestBodyTest, RequestMayComeByteByByte) {
    ServerScene scene;
    addEcho(scene);
    scene.start();
    Client client(scene.port());

    for (const char byte : post("/echo", "slow")) {
        client.send({&byte, 1});
    }

    EXPECT_EQ("slow", client.readResponse().body);
}

TEST_P(RequestBodyTest, BodyInChunksIsRead) {
    ServerScene scene;
    addEcho(scene);
    scene.start();
    Client client(scene.port());

    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost +
                "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\na;x=y\r\n0123456789\r\n0\r\n\r\n");

    EXPECT_EQ("abc0123456789", client.readResponse().body);
    client.send(post("/echo", "next"));
    EXPECT_EQ("next", client.readResponse().body);
}

TEST_P(RequestBodyTest, WhatStandsBetweenChunksWithoutEndIsRefused) {
    ServerScene scene;
    addEcho(scene);
    scene.start();
    const std::string head = "POST /echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const std::string& endless :
         {"1;name=" + std::string(100'000, 'x'), std::string(100'000, '0'),
          "1\r\na\r\n0\r\nName: " + std::string(100'000, 'x')}) {
        Client client(scene.port());

        (void)client.send(head + endless);  // refused before all of it has gone

        EXPECT_EQ(400, client.readResponse().status) << endless.substr(0, 20);
    }
}

TEST_P(RequestBodyTest, LargeBodyIsReadWhole) {
    ServerScene scene;
    addEcho(scene, 8 << 20);
    scene.start();
    Client client(scene.port());
    std::string body;
    while (body.size() < (4U << 20)) {
        body += std::to_string(body.size()) + ' ';
    }

    auto sending = std::async(std::launch::async, [&] { return client.send(post("/echo", body)); });

    EXPECT_TRUE(sending.get());
    EXPECT_EQ(body, client.readResponse().body);
}

TEST_P(RequestBodyTest, ClientThatWaitsForItIsToldToContinue) {
    ServerScene scene;
    addEcho(scene);
    scene.start();
    Client client(scene.port());

    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost +
                "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 100 Continue", client.readTo("\r\n\r\n"));
    client.send("body");

    EXPECT_EQ("body", client.readResponse().body);
}

TEST_P(RequestBodyTest, BodyThatIsAnnouncedTooLongIsRefusedUnread) {
    ServerScene scene;
    addEcho(scene, 10);
    scene.start();
    Client client(scene.port());

    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost + "Content-Length: 11\r\n\r\n");

    EXPECT_EQ(413, client.readResponse().status);
}

TEST_P(RequestBodyTest, BodyInChunksThatGetsTooLongIsRefused) {
    ServerScene scene;
    addEcho(scene, 10);
    scene.start();
    Client client(scene.port());

    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost +
                "Transfer-Encoding: chunked\r\n\r\n8\r\n01234567\r\n3\r\n012\r\n0\r\n\r\n");

    EXPECT_EQ(413, client.readResponse().status);
}

TEST_P(RequestBodyTest, BodyOfTheGreatestLengthIsTaken) {
    ServerScene scene;
    addEcho(scene, 10);
    scene.start();
    Client client(scene.port());

    client.send(post("/echo", "0123456789"));

    EXPECT_EQ("0123456789", client.readResponse().body);
}

TEST_P(RequestBodyTest, BodyThatDoesNotComeIsGivenUp) {
    ServerScene scene;
    scene.settings.limits.bodyPause = std::chrono::seconds(1);
    addEcho(scene);
    scene.start();
    Client client(scene.port());

    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost + "Content-Length: 11\r\n\r\nabc");

    EXPECT_EQ(408, client.readResponse().status);
}

TEST_P(RequestBodyTest, BodyThatBreaksOffHasNoEnd) {
    std::promise<void> unwound;
    ServerScene scene;
    struct Unwinding {
        explicit Unwinding(std::promise<void>& promise) : done(promise) {}
        ~Unwinding() { done.set_value(); }
        std::promise<void>& done;
    };
    scene.router.add("POST", "/echo", [&](Request& request) -> Awaitable<Response> {
        const Unwinding unwinding(unwound);
        const std::string body = co_await GetParam()(scene, request);
        ADD_FAILURE() << "The body has ended: " << body;
        co_return Response();
    });
    scene.start();
    {
        Client client(scene.port());
        client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost +
                    "Content-Length: 11\r\n\r\nabc");
    }

    unwound.get_future().wait();

    EXPECT_THAT(scene.log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Reading, RequestBodyTest, testing::Values(&inPieces, &onPool),
                         [](const testing::TestParamInfo<ReadWhole>& way) {
                             return way.index == 0 ? "InPieces" : "OnThePool";
                         });

TEST(RequestOnPoolTest, RefusalOfTheEndIsFollowedByTheNextRequest) {
    ServerScene scene;
    scene.router.add(
        "POST", "/no",
        [&scene](Request& request) -> Awaitable<Response> {
            const auto refuse = [](std::string_view piece) {
                if (piece.empty()) {
                    throw HttpError(409, "It runs already.");
                }
            };
            co_await request.readOnPool(scene.threads(), refuse);
            co_return Response();
        },
        1 << 20);
    scene.start();
    Client client(scene.port());

    client.send(post("/no", "one") + post("/no", std::string(200'000, 'x')) + post("/no", ""));

    EXPECT_EQ(409, client.readResponse().status);
    EXPECT_EQ(409, client.readResponse().status);
    EXPECT_EQ(409, client.readResponse().status);
}

// The thread that takes pieces also reads: nothing else may have to be done for the connection.
TEST(RequestOnPoolTest, TransfersSideBySideComeWhole) {
    ServerScene scene;
    scene.router.add(
        "POST", "/length",
        [&scene](Request& request) -> Awaitable<Response> {
            std::size_t length = 0;
            bool orderly = true;
            const auto take = [&](std::string_view piece) {
                for (const char letter : piece) {
                    orderly = orderly && letter == static_cast<char>('a' + length % 23);
                    ++length;
                }
            };
            co_await request.readOnPool(scene.threads(), take);
            co_return textResponse(200, "text/plain",
                                   std::to_string(length) + (orderly ? "" : " in disorder"));
        },
        64 << 20);
    scene.start();
    std::string body;
    while (body.size() < (6U << 20)) {
        body.push_back(static_cast<char>('a' + body.size() % 23));
    }

    std::vector<std::future<std::string>> answers;
    for (int transfer = 0; transfer < 8; ++transfer) {
        answers.push_back(std::async(std::launch::async, [&] {
            Client client(scene.port());
            client.send(post("/length", body));
            return client.readResponse().body;
        }));
    }

    for (auto& answer : answers) {
        EXPECT_EQ(std::to_string(body.size()), answer.get());
    }
}

}  // namespace
}  // namespace kolvan::test
