#include "companions/server/agents/Bodies.h"

#include "tests/companions/server/support/ServerScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace kolvan::test {
namespace {

using server::agents::readForm;
using server::agents::readMessage;
using server::http::Awaitable;
using server::http::Request;
using server::http::Response;
using server::http::textResponse;
using server::protocol::AgentMessage;
using testing::HasSubstr;

// Says back what it has understood.
class BodyScene : public ServerScene {
public:
    BodyScene() {
        router.add(
            "POST", "/message", [this](Request& request) { return message(request); }, 16 << 20);
        router.add(
            "POST", "/form", [this](Request& request) { return form(request); }, 16 << 20);
        start();
    }
    ~BodyScene() { (void)stop(); }  // connections end before the routes

    ReceivedResponse post(const std::string& target, const std::string& body,
                          const std::string& type = "text/plain") {
        Client client(port());
        client.send("POST " + target +
                    " HTTP/1.1\r\nHost: a\r\nConnection: close\r\nContent-Type: " + type +
                    "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
        return client.readResponse();
    }

private:
    class Notes final : public server::protocol::FormListener {
    public:
        void beginPart(const std::string& name,
                       const std::optional<std::string>& fileName) override {
            if (name == "full") {
                throw std::runtime_error("the disk is full");
            }
            all += name + '|' + fileName.value_or("") + ':';
        }
        void data(std::string_view piece) override { all += piece; }
        void endPart() override { all += ';'; }

        std::string all;
    };

    Awaitable<Response> message(Request& request) {
        std::string output;
        const auto take = [&output](const AgentMessage&, std::string_view bytes) {
            output += bytes;
        };
        std::string type;
        const auto handle = [&type](const AgentMessage& message) { type = message.type; };
        co_await readMessage(request, threads(), take, handle);
        co_return textResponse(200, "text/plain", type + ' ' + output);
    }

    Awaitable<Response> form(Request& request) {
        Notes notes;
        co_await readForm(request, threads(), notes);
        co_return textResponse(200, "text/plain", notes.all);
    }
};

std::string formWith(const std::string& name, const std::string& content) {
    return "--XY\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"f\"\r\n\r\n" +
           content + "\r\n--XY--\r\n";
}

constexpr const char* kFormType = "multipart/form-data; boundary=XY";

TEST(BodiesTest, MessageIsReadWithItsOutput) {
    BodyScene scene;

    EXPECT_EQ(
        "x foobar",
        scene.post("/message", R"({"messageType":"x","messageParameters":{"message":"Zm9vYmFy"}})")
            .body);
}

TEST(BodiesTest, OutputOfManyPiecesIsRead) {
    BodyScene scene;
    std::string base64;
    std::string content;
    for (int group = 0; group < 400'000; ++group) {
        base64 += "Zm9v";
        content += "foo";
    }

    const ReceivedResponse response =
        scene.post("/message", R"({"messageType":"x","messageParameters":{"accessToken":"t",)"
                               R"("agentUuid":"u","id":"1","message":")" +
                                   base64 + "\"}}");

    EXPECT_TRUE("x " + content == response.body);
}

TEST(BodiesTest, WhatIsNoMessageIsRefusedWithThePlace) {
    BodyScene scene;

    const ReceivedResponse response = scene.post("/message", R"({"messageType":"x",})");

    EXPECT_EQ(400, response.status);
    EXPECT_THAT(response.body, HasSubstr("The name of a member is missing at byte 19"));
    EXPECT_EQ(400, scene.post("/message", "").status);
    EXPECT_EQ(400, scene.post("/message", "{}").status);
}

TEST(BodiesTest, FormIsRead) {
    BodyScene scene;
    const std::string content(300'000, 'x');

    EXPECT_TRUE("a|f:" + content + ';' ==
                scene.post("/form", formWith("a", content), kFormType).body);
}

TEST(BodiesTest, WhatIsNoFormIsRefused) {
    BodyScene scene;

    EXPECT_EQ(415, scene.post("/form", formWith("a", "b"), "text/plain").status);
    EXPECT_EQ(400, scene.post("/form", "--XY", kFormType).status);
    EXPECT_EQ(400, scene.post("/form", "--XY\r\nnonsense\r\n\r\n", kFormType).status);
}

TEST(BodiesTest, FailureOfTheListenerIsTheServers) {
    BodyScene scene;

    EXPECT_EQ(500, scene.post("/form", formWith("full", "b"), kFormType).status);
    EXPECT_EQ(200, scene.post("/form", formWith("a", "b"), kFormType).status);
}

}  // namespace
}  // namespace kolvan::test
