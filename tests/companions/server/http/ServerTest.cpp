#include "companions/server/http/HttpError.h"
#include "companions/server/http/ListeningSocket.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <future>
#include <stdexcept>
#include <string>

#include <fcntl.h>

namespace kolvan::test {
namespace {

using server::http::Awaitable;
using server::http::BodyWriter;
using server::http::FileBody;
using server::http::Request;
using server::http::Response;
using server::http::textResponse;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

Awaitable<Response> hello(Request& /*request*/) {
    co_return textResponse(200, "text/plain", "hello");
}

Awaitable<Response> echo(Request& request) {
    std::string body = co_await request.readAll();
    co_return textResponse(200, "text/plain", std::move(body));
}

Awaitable<Response> ignoreBody(Request& /*request*/) {
    co_return textResponse(403, "text/plain", "no");
}

constexpr const char* kHost = "Host: test\r\n";

std::string post(const std::string& target, const std::string& body,
                 const std::string& fields = "") {
    return "POST " + target + " HTTP/1.1\r\n" + kHost + fields +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(ServerTest, RequestIsAnsweredAndTheConnectionKept) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    for (int turn = 0; turn < 3; ++turn) {
        ReceivedResponse response = client.get("/hello");
        EXPECT_EQ(200, response.status);
        EXPECT_EQ("hello", response.body);
        EXPECT_EQ("5", response.fields["content-length"]);
        EXPECT_EQ("text/plain", response.fields["content-type"]);
        EXPECT_EQ("keep-alive", response.fields["connection"]);
        EXPECT_THAT(response.fields["date"],
                    MatchesRegex("[A-Z][a-z]+, [0-9]+ [A-Z][a-z]+ [0-9]+ [0-9:]+ GMT"));
    }
}

TEST(ServerTest, EveryAnswerTellsBrowsersToTrustItAsLittleAsPossible) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();

    for (const char* const request :
         {"GET /hello HTTP/1.1\r\nHost: test\r\n\r\n", "GET /other HTTP/1.1\r\nHost: test\r\n\r\n",
          "no request\r\n\r\n"}) {
        Client client(scene.port());
        client.send(request);
        ReceivedResponse response = client.readResponse();
        EXPECT_EQ("nosniff", response.fields["x-content-type-options"]) << request;
        EXPECT_EQ(
            "default-src 'self'; base-uri 'none'; form-action 'self'; "
            "frame-ancestors 'none'; object-src 'none'",
            response.fields["content-security-policy"])
            << request;
        EXPECT_EQ("DENY", response.fields["x-frame-options"]) << request;
        EXPECT_EQ("no-referrer", response.fields["referrer-policy"]) << request;
        EXPECT_EQ("no-store", response.fields["cache-control"]) << request;
    }
}

TEST(ServerTest, FieldOfTheAnswerTakesThePlaceOfTheUsualOne) {
    ServerScene scene;
    scene.router.add("GET", "/style", [](Request& /*request*/) -> Awaitable<Response> {
        Response response = textResponse(200, "text/css", "a {}");
        response.fields.emplace_back("cache-control", "max-age=60");
        co_return response;
    });
    scene.start();
    Client client(scene.port());
    client.send("GET /style HTTP/1.1\r\nHost: test\r\n\r\n");

    const std::string head = client.readTo("\r\n\r\n").value_or("");

    EXPECT_THAT(head, HasSubstr("\r\ncache-control: max-age=60\r\n"));
    EXPECT_THAT(head, testing::Not(HasSubstr("no-store")));
}

TEST(ServerTest, TrafficIsCounted) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    const auto traffic = std::make_shared<server::http::Traffic>();
    scene.settings.traffic = traffic;
    scene.start();
    const auto read = [&] { return scene.network().call([&] { return *traffic; }); };
    {
        Client client(scene.port());
        client.get("/hello");
        client.get("/hello");
        client.get("/other");

        EXPECT_EQ(1U, read().connections);
    }

    ASSERT_TRUE(scene.waitForConnections(0));
    EXPECT_EQ(0U, read().connections);
    EXPECT_THAT(read().responses, ElementsAre(0, 0, 2, 0, 1, 0));
}

TEST(ServerTest, ConnectionEndsWhereTheClientWantsIt) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send("GET /hello HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n");

    ReceivedResponse response = client.readResponse();
    EXPECT_EQ("hello", response.body);
    EXPECT_EQ("close", response.fields["connection"]);
    EXPECT_EQ("", client.readAll());
}

TEST(ServerTest, OldClientGetsOneAnswer) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send("GET /hello HTTP/1.0\r\n\r\n");

    EXPECT_EQ("hello", client.readResponse().body);
    EXPECT_EQ("", client.readAll());
}

TEST(ServerTest, OldClientMayKeepItsConnection) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send("GET /hello HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");

    EXPECT_EQ("keep-alive", client.readResponse().fields["connection"]);
    EXPECT_EQ("hello", client.get("/hello").body);
}

TEST(ServerTest, HeadIsTheAnswerWithoutItsBody) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send("HEAD /hello HTTP/1.1\r\nHost: test\r\n\r\n");

    EXPECT_EQ("5", client.readResponse(/*headOnly=*/true).fields["content-length"]);
    EXPECT_EQ("hello", client.get("/hello").body);
}

TEST(ServerTest, UnknownAddressIsAProblem) {
    ServerScene scene;
    scene.start();
    Client client(scene.port());

    ReceivedResponse response = client.get("/nowhere");

    EXPECT_EQ(404, response.status);
    EXPECT_EQ("application/problem+json", response.fields["content-type"]);
    EXPECT_EQ(R"({"title":"Not Found","status":404,"detail":"There is nothing at this address."})",
              response.body);
}

TEST(ServerTest, OtherMethodIsToldWhichThereAre) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.router.add("PUT", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send(post("/hello", ""));

    ReceivedResponse response = client.readResponse();
    EXPECT_EQ(405, response.status);
    EXPECT_EQ("GET, PUT", response.fields["allow"]);
}

TEST(ServerTest, ClientThatWaitsIsNotToldToSendWhatNobodyReads) {
    ServerScene scene;
    scene.router.add("POST", "/no", ignoreBody);
    scene.start();
    Client client(scene.port());

    client.send(std::string("POST /no HTTP/1.1\r\n") + kHost +
                "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n");

    EXPECT_EQ("HTTP/1.1 403 Forbidden", client.readTo("\r\n"));
}

// With its body unread, the end of the connection would throw the answer away.
TEST(ServerTest, AnswerArrivesThoughTheClientIsStillSending) {
    ServerScene scene;
    scene.router.add("POST", "/no", ignoreBody, 100 << 20);
    scene.start();
    Client client(scene.port());

    auto sending = std::async(std::launch::async,
                              [&] { return client.send(post("/no", std::string(8 << 20, 'x'))); });
    (void)sending.get();  // it may go on to the end or not

    const ReceivedResponse response = client.readResponse();
    EXPECT_EQ(403, response.status);
    EXPECT_EQ("no", response.body);
    EXPECT_EQ("", client.readAll());
}

TEST(ServerTest, WhatIsNoRequestIsAProblem) {
    ServerScene scene;
    scene.start();
    for (const char* text :
         {"nonsense\r\n\r\n", "GET / HTTP/2.0\r\n\r\n", "GET /%zz HTTP/1.1\r\nHost: x\r\n\r\n",
          "GET / HTTP/1.1\r\n\r\n", "GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n",
          "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n",
          "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
          "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n",
          "GET / HTTP/1.1\r\nHost: a\r\nbad field\r\n\r\n"}) {
        Client client(scene.port());
        client.send(text);
        client.endSending();
        EXPECT_EQ(400, client.readResponse().status) << text;
        EXPECT_EQ("", client.readAll()) << text;
    }
}

TEST(ServerTest, BodyWithTwoLengthsIsRefused) {
    ServerScene scene;
    scene.router.add("POST", "/echo", echo);
    scene.start();

    for (const char* const lengths : {"Content-Length: 4\r\nContent-Length: 5\r\n",
                                      "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n",
                                      "Transfer-Encoding: chunked\r\nContent-Length: 4\r\n",
                                      "Content-Length: +4\r\n", "Content-Length: 4, 5\r\n"}) {
        Client client(scene.port());
        client.send(std::string("POST /echo HTTP/1.1\r\nHost: test\r\n") + lengths +
                    "\r\n0\r\n\r\n");

        EXPECT_EQ(400, client.readResponse().status) << lengths;
        EXPECT_EQ("", client.readAll()) << lengths;
    }
}

TEST(ServerTest, FieldOnSeveralLinesIsRefused) {
    ServerScene scene;
    scene.router.add("POST", "/echo", echo);
    scene.start();

    for (const char* const fields :
         {"X: one\r\n two\r\n", "X: one\r\n\ttwo\r\n", "Transfer-Encoding:\r\n chunked\r\n",
          "X: one\r\n Content-Length: 4\r\n", "X:\r\n \r\n"}) {
        const std::string request =
            std::string("POST /echo HTTP/1.1\r\nHost: test\r\n") + fields + "\r\n0\r\n\r\n";
        Client atOnce(scene.port());
        atOnce.send(request);
        EXPECT_EQ(400, atOnce.readResponse().status) << fields;
        EXPECT_EQ("", atOnce.readAll()) << fields;

        Client byteByByte(scene.port());
        for (const char byte : request) {
            (void)byteByByte.send({&byte, 1});  // the answer tells, and may come before the end
        }
        EXPECT_EQ(400, byteByByte.readResponse().status) << fields;
    }
}

TEST(ServerTest, UnknownTransferEncodingIsRefused) {
    ServerScene scene;
    scene.start();
    Client client(scene.port());

    client.send("POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip\r\n\r\n");

    EXPECT_EQ(501, client.readResponse().status);
}

TEST(ServerTest, ChunksThatAreCompressedBesidesAreRefused) {
    ServerScene scene;
    scene.router.add("POST", "/echo", echo);
    scene.start();
    Client client(scene.port());

    client.send(
        "POST /echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n");

    EXPECT_EQ(501, client.readResponse().status);
}

TEST(ServerTest, ChunksInTheOldVersionAreRefused) {
    ServerScene scene;
    scene.router.add("POST", "/echo", echo);
    scene.start();
    Client client(scene.port());

    client.send("POST /echo HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n");

    EXPECT_EQ(400, client.readResponse().status);
}

TEST(ServerTest, HeadThatIsTooLongIsRefused) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send("GET /hello HTTP/1.1\r\nHost: a\r\nX: " + std::string(20'000, 'x') + "\r\n\r\n");

    EXPECT_EQ(431, client.readResponse().status);
}

TEST(ServerTest, HeadOfTheUsualLengthIsTaken) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());

    client.send("GET /hello HTTP/1.1\r\nHost: a\r\nX: " + std::string(15'000, 'x') + "\r\n\r\n");

    EXPECT_EQ(200, client.readResponse().status);
}

TEST(ServerTest, ClientThatSaysNothingIsDropped) {
    ServerScene scene;
    scene.settings.limits.firstHead = std::chrono::seconds(0);
    scene.start();
    Client client(scene.port());

    EXPECT_EQ("", client.readAll());
}

TEST(ServerTest, HandlerThatRefusesIsTheClientsProblem) {
    ServerScene scene;
    scene.router.add("GET", "/no", [](Request& request) -> Awaitable<Response> {
        (void)request.query();
        throw server::http::HttpError(409, "It runs already.");
        co_return Response();
    });
    scene.start();
    Client client(scene.port());

    EXPECT_EQ(R"({"title":"Conflict","status":409,"detail":"It runs already."})",
              client.get("/no").body);
    EXPECT_EQ(400, client.get("/no?a=%").status);
    EXPECT_THAT(scene.log(), IsEmpty());
}

TEST(ServerTest, FailureOfAHandlerIsFoundInTheLog) {
    ServerScene scene;
    scene.router.add("GET", "/fails", [](Request&) -> Awaitable<Response> {
        throw std::runtime_error("the disk is full");
        co_return Response();
    });
    scene.start();
    Client client(scene.port());

    const ReceivedResponse response = client.get("/fails");

    EXPECT_EQ(500, response.status);
    ASSERT_EQ(1U, scene.log().size());
    const std::string line = scene.log().front();
    EXPECT_THAT(line, MatchesRegex("Failure [0-9a-f]+: the disk is full"));
    EXPECT_THAT(response.body, HasSubstr("with the number " + line.substr(8, line.find(':') - 8)));
    EXPECT_EQ(404, client.get("/other").status);
}

TEST(ServerTest, LineEndInAFieldIsNotSent) {
    ServerScene scene;
    scene.router.add("GET", "/split", [](Request& request) -> Awaitable<Response> {
        Response response = textResponse(200, "text/plain", "");
        response.fields.emplace_back("X-Name", request.query().front().second);
        co_return response;
    });
    scene.start();
    Client client(scene.port());

    EXPECT_EQ(0, client.get("/split?name=a%0d%0aSet-Cookie:%20b").status);
}

TEST(ServerTest, TooManyConnectionsAreTold) {
    ServerScene scene;
    scene.settings.limits.connections = 2;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client first(scene.port());
    Client second(scene.port());
    EXPECT_EQ(200, first.get("/hello").status);
    EXPECT_EQ(200, second.get("/hello").status);
    Client third(scene.port());

    ReceivedResponse refused = third.get("/hello");

    EXPECT_EQ(503, refused.status);
    EXPECT_EQ("5", refused.fields["retry-after"]);
    EXPECT_EQ("", third.readAll());
    EXPECT_EQ(200, second.get("/hello").status);
}

TEST(ServerTest, ConnectionsBeyondAllLimitsWaitForTheirTurn) {
    ServerScene scene;
    scene.settings.limits.connections = 1;
    scene.settings.limits.refusals = 0;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    auto first = std::make_unique<Client>(scene.port());
    EXPECT_EQ(200, first->get("/hello").status);
    Client second(scene.port());
    second.send("GET /hello HTTP/1.1\r\nHost: a\r\n\r\n");

    first.reset();

    EXPECT_EQ(200, second.readResponse().status);
}

TEST(ServerTest, WrittenResponseIsReported) {
    ServerScene scene;
    std::promise<bool> sent;
    scene.router.add("GET", "/hello", [&sent](Request&) -> Awaitable<Response> {
        Response response = textResponse(200, "text/plain", "hello");
        response.sent = [&sent](bool written) { sent.set_value(written); };
        co_return response;
    });
    scene.start();
    Client client(scene.port());

    EXPECT_EQ("hello", client.get("/hello").body);

    EXPECT_TRUE(sent.get_future().get());
}

TEST(ServerTest, ResponseThatNobodyTakesIsReported) {
    ServerScene scene;
    scene.settings.limits.bodyPause = std::chrono::seconds(1);
    std::promise<bool> sent;
    scene.router.add("GET", "/large", [&sent](Request&) -> Awaitable<Response> {
        Response response = textResponse(200, "text/plain", std::string(64 << 20, 'x'));
        response.sent = [&sent](bool written) { sent.set_value(written); };
        co_return response;
    });
    scene.start();
    Client client(scene.port());

    client.send("GET /large HTTP/1.1\r\nHost: a\r\n\r\n");

    EXPECT_FALSE(sent.get_future().get());
}

// ---- Files

class FileScene : public ServerScene {
public:
    FileScene() {
        for (int line = 0; content.size() < 600'000; ++line) {
            content += std::to_string(line) + '\n';
        }
        const std::string path = directory.write("file", content);
        router.add("GET", "/file", [this, path](Request&) -> Awaitable<Response> {
            Response response;
            const auto file = std::make_shared<const basekit2::UniqueFd>(
                ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
            response.body = FileBody{file, announced == 0 ? content.size() : announced};
            co_return response;
        });
        start();
    }

    TemporaryDirectory directory;
    std::string content;
    std::size_t announced = 0;
};

ReceivedResponse askFor(Client& client, const std::string& range) {
    client.send("GET /file HTTP/1.1\r\nHost: a\r\nRange: " + range + "\r\n\r\n");
    return client.readResponse();
}

TEST(ServerTest, FileIsSentWhole) {
    FileScene scene;
    Client client(scene.port());

    ReceivedResponse response = client.get("/file");

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("bytes", response.fields["accept-ranges"]);
    EXPECT_EQ(scene.content, response.body);
    scene.stop();
}

TEST(ServerTest, PartOfAFileIsSent) {
    FileScene scene;
    Client client(scene.port());

    ReceivedResponse response = askFor(client, "bytes=300000-599999");

    EXPECT_EQ(206, response.status);
    EXPECT_EQ("bytes 300000-599999/" + std::to_string(scene.content.size()),
              response.fields["content-range"]);
    EXPECT_EQ(scene.content.substr(300'000, 300'000), response.body);
    scene.stop();
}

TEST(ServerTest, PartThatTheFileDoesNotHaveIsRefused) {
    FileScene scene;
    Client client(scene.port());

    ReceivedResponse response = askFor(client, "bytes=99999999-");

    EXPECT_EQ(416, response.status);
    EXPECT_EQ("bytes */" + std::to_string(scene.content.size()), response.fields["content-range"]);
    EXPECT_EQ(200, client.get("/file").status);
    scene.stop();
}

TEST(ServerTest, FileThatTurnsOutShorterBreaksTheResponseOff) {
    FileScene scene;
    scene.announced = scene.content.size() + 1;
    Client client(scene.port());

    const ReceivedResponse response = client.get("/file");

    EXPECT_FALSE(response.complete);
    scene.stop();
    EXPECT_THAT(scene.log(), ElementsAre("A response was broken off: A file has become shorter "
                                         "while it was sent"));
}

// ---- Streams

TEST(ServerTest, StreamGoesOutPieceByPiece) {
    ServerScene scene;
    std::promise<void> read;
    scene.router.add("GET", "/stream", [&](Request&) -> Awaitable<Response> {
        co_return server::http::eventsResponse([&](BodyWriter& writer) -> Awaitable<void> {
            EXPECT_TRUE(co_await writer.write("one"));
            EXPECT_TRUE(co_await writer.write(""));
            read.get_future().wait();
            EXPECT_TRUE(co_await writer.write("two"));
        });
    });
    scene.start();
    Client client(scene.port());

    client.send("GET /stream HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_TRUE(client.readTo("3\r\none\r\n"));
    read.set_value();

    EXPECT_EQ("3\r\ntwo\r\n", client.readTo("0\r\n\r\n"));
    EXPECT_EQ(404, client.get("/").status);
}

TEST(ServerTest, OldClientGetsAStreamToTheEndOfTheConnection) {
    ServerScene scene;
    scene.router.add("GET", "/stream", [](Request&) -> Awaitable<Response> {
        co_return server::http::eventsResponse([](BodyWriter& writer) -> Awaitable<void> {
            (void)co_await writer.write("one");
            (void)co_await writer.write("two");
        });
    });
    scene.start();
    Client client(scene.port());

    client.send("GET /stream HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");

    ReceivedResponse response = client.readResponse();
    EXPECT_EQ("onetwo", response.body);
    EXPECT_EQ("close", response.fields["connection"]);
}

TEST(ServerTest, StreamThatFailsIsBrokenOff) {
    ServerScene scene;
    scene.router.add("GET", "/stream", [](Request&) -> Awaitable<Response> {
        co_return server::http::eventsResponse([](BodyWriter& writer) -> Awaitable<void> {
            (void)co_await writer.write("one");
            throw std::runtime_error("the source is gone");
        });
    });
    scene.start();
    Client client(scene.port());

    const ReceivedResponse response = client.get("/stream");

    EXPECT_EQ("one", response.body);
    EXPECT_FALSE(response.complete);
    EXPECT_THAT(scene.log(), ElementsAre("A response was broken off: the source is gone"));
}

TEST(ServerTest, WriterOfAStreamLearnsThatNobodyTakesIt) {
    ServerScene scene;
    std::promise<void> gone;
    scene.router.add("GET", "/stream", [&](Request&) -> Awaitable<Response> {
        co_return server::http::eventsResponse([&](BodyWriter& writer) -> Awaitable<void> {
            while (co_await writer.write(std::string(100'000, 'x'))) {
            }
            gone.set_value();
        });
    });
    scene.start();
    Client client(scene.port());
    client.send("GET /stream HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_TRUE(client.readTo("xxx"));

    client.reset();

    gone.get_future().wait();
    EXPECT_TRUE(scene.waitForConnections(0));
}

TEST(ServerTest, StreamThatWaitsForNewsLearnsThatItsListenerHasGone) {
    ServerScene scene;
    std::promise<void> waiting;
    std::promise<void> gone;
    scene.router.add("GET", "/stream", [&](Request&) -> Awaitable<Response> {
        co_return server::http::eventsResponse([&](BodyWriter& writer) -> Awaitable<void> {
            boost::asio::steady_timer timer(scene.network().executor(), std::chrono::hours(1));
            writer.onEnd([&] {
                gone.set_value();
                timer.cancel();
            });
            waiting.set_value();
            boost::system::error_code ignored;
            co_await timer.async_wait(
                boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
        });
    });
    scene.start();
    Client client(scene.port());
    client.send("GET /stream HTTP/1.1\r\nHost: a\r\n\r\n");
    waiting.get_future().wait();

    client.endSending();

    gone.get_future().wait();
    EXPECT_TRUE(scene.waitForConnections(0));
}

TEST(ServerTest, HandlerThatHoldsItsAnswerLearnsThatTheClientHasGone) {
    ServerScene scene;
    std::promise<void> held;
    std::promise<void> gone;
    scene.router.add("GET", "/held", [&](Request& request) -> Awaitable<Response> {
        boost::asio::steady_timer timer(scene.network().executor(), std::chrono::hours(1));
        request.onHangUp([&] {
            gone.set_value();
            timer.cancel();
        });
        held.set_value();
        boost::system::error_code ignored;
        co_await timer.async_wait(boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
        co_return textResponse(200, "text/plain", "late");
    });
    scene.start();
    auto client = std::make_unique<Client>(scene.port());
    client->send("GET /held HTTP/1.1\r\nHost: a\r\n\r\n");
    held.get_future().wait();

    client.reset();

    gone.get_future().wait();
    EXPECT_TRUE(scene.waitForConnections(0));
}

// ---- Stopping

TEST(ServerTest, StopEndsConnectionsBetweenTwoRequests) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());
    EXPECT_EQ(200, client.get("/hello").status);

    EXPECT_EQ(0U, scene.stop());

    EXPECT_EQ("", client.readAll());
}

TEST(ServerTest, StopLetsAClientThatHasJustConnectedMakeItsRequest) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    scene.start();
    Client client(scene.port());
    ASSERT_TRUE(scene.waitForConnections(1));

    auto stopped = scene.beginToStop();
    ReceivedResponse response = client.get("/hello");

    EXPECT_EQ("hello", response.body);
    EXPECT_EQ("close", response.fields["connection"]);
    EXPECT_EQ(0U, stopped.get());
}

TEST(ServerTest, StopTellsStreamsToEnd) {
    ServerScene scene;
    std::promise<void> streaming;
    scene.router.add("GET", "/stream", [&](Request&) -> Awaitable<Response> {
        co_return server::http::eventsResponse([&](BodyWriter& writer) -> Awaitable<void> {
            boost::asio::steady_timer timer(scene.network().executor(), std::chrono::hours(1));
            writer.onEnd([&timer] { timer.cancel(); });
            streaming.set_value();
            boost::system::error_code ignored;
            co_await timer.async_wait(
                boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
            EXPECT_TRUE(co_await writer.write("farewell"));
        });
    });
    scene.start();
    Client client(scene.port());
    client.send("GET /stream HTTP/1.1\r\nHost: a\r\n\r\n");
    streaming.get_future().wait();

    EXPECT_EQ(0U, scene.stop());

    const ReceivedResponse response = client.readResponse();
    EXPECT_EQ("farewell", response.body);
    EXPECT_TRUE(response.complete);
}

TEST(ServerTest, StopBreaksOffWhatDoesNotEnd) {
    ServerScene scene;
    scene.router.add("POST", "/echo", echo);
    scene.start();
    Client client(scene.port());
    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost + "Content-Length: 11\r\n\r\nabc");
    ASSERT_TRUE(scene.waitForConnections(1));

    EXPECT_EQ(1U, scene.stop(std::chrono::seconds(0)));
}

TEST(ServerTest, StopThatIsPatientCanBeToldToHurry) {
    ServerScene scene;
    scene.router.add("POST", "/echo", echo);
    scene.start();
    Client client(scene.port());
    client.send(std::string("POST /echo HTTP/1.1\r\n") + kHost + "Content-Length: 11\r\n\r\nabc");
    ASSERT_TRUE(scene.waitForConnections(1));
    auto stopped = scene.beginToStop(std::chrono::hours(1));

    scene.hurry(std::chrono::seconds(0));

    EXPECT_EQ(1U, stopped.get());
}

TEST(ServerTest, WaitingConnectionsPassToTheNextServerOnTheSocket) {
    ServerScene scene;
    scene.router.add("GET", "/hello", hello);
    basekit2::UniqueFd socket = server::http::listenOn("127.0.0.1", 0);
    basekit2::UniqueFd heir(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
    scene.startOn(std::move(socket));
    EXPECT_EQ(0U, scene.stop());
    Client client(scene.port());
    client.send("GET /hello HTTP/1.1\r\nHost: a\r\n\r\n");

    scene.startOn(std::move(heir));

    EXPECT_EQ("hello", client.readResponse().body);
}

}  // namespace
}  // namespace kolvan::test
