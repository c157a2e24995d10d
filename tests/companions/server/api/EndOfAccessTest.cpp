#include "companions/server/api/EndOfAccess.h"

#include "companions/server/store/WakeUpTable.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <fcntl.h>

namespace kolvan::server::api {
namespace {

namespace asio = boost::asio;

using http::Awaitable;
using http::BodyWriter;
using http::Response;
using test::Client;

class EndOfAccessTest : public testing::Test {
protected:
    EndOfAccessTest() {
        scene.router.add("GET", "/waiting", [this](http::Request&) {
            return answer(http::StreamBody([](BodyWriter& writer) -> Awaitable<void> {
                (void)co_await writer.write("begun\n");
                co_await waitForEnd(writer);
            }));
        });
        scene.router.add("GET", "/writing", [this](http::Request&) {
            return answer(http::StreamBody([](BodyWriter& writer) -> Awaitable<void> {
                while (co_await writer.write("line\n")) {
                }
            }));
        });
        scene.router.add("GET", "/file", [this](http::Request&) {
            const std::string path = directory.write("file", std::string(kFileSize, 'x'));
            http::FileBody file{std::make_shared<const basekit2::UniqueFd>(
                                    ::open(path.c_str(), O_RDONLY | O_CLOEXEC)),
                                kFileSize};
            return answer(std::move(file));
        });
        scene.start();
    }

    /// Waits for as long as the access lasts and the client is there.
    static Awaitable<void> waitForEnd(BodyWriter& writer) {
        const auto timer = std::make_shared<asio::steady_timer>(co_await asio::this_coro::executor);
        timer->expires_at(asio::steady_timer::time_point::max());
        writer.onEnd([timer] { timer->cancel(); });
        boost::system::error_code ignored;  // a cancellation is what is waited for
        co_await timer->async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    }

    Awaitable<Response> answer(decltype(Response::body) body) {
        Response response;
        response.body = std::move(body);
        endWithAccess(
            wakeUps, scene.threads(), [this] { return lasts.load(); }, response);
        co_return response;
    }

    /// Takes the access away. @param told whether the store says so
    void end(bool told) {
        lasts = false;
        if (told) {
            wakeUps.wakeForEndOfAccess();
        }
    }

    /// Asks, and reads what comes first.
    static void begin(Client& client, const std::string& path, std::string_view first) {
        ASSERT_TRUE(client.send("GET " + path + " HTTP/1.0\r\n\r\n"));
        ASSERT_TRUE(client.readTo("\r\n\r\n"));
        ASSERT_TRUE(client.readTo(first));
    }

    // Far more than the system keeps for a client that does not read.
    static constexpr std::size_t kFileSize = std::size_t{48} * 1024 * 1024;

    const test::TemporaryDirectory directory;
    std::atomic<bool> lasts = true;
    WakeUpTable wakeUps;
    test::ServerScene scene;
};

TEST_F(EndOfAccessTest, StreamThatWaitsEndsAtOnce) {
    Client client(scene.port());
    begin(client, "/waiting", "begun\n");

    end(true);

    EXPECT_EQ("", client.readAll());
}

TEST_F(EndOfAccessTest, StreamGoesOnWhenTheAccessOfAnotherOneEnds) {
    Client client(scene.port());
    begin(client, "/writing", "line\n");

    wakeUps.wakeForEndOfAccess();

    EXPECT_TRUE(client.readTo("line\n"));
}

TEST_F(EndOfAccessTest, WhatEndsByTheTimeAloneEndsTheStreamAtItsNextWord) {
    Client client(scene.port());
    begin(client, "/writing", "line\n");

    end(false);

    (void)client.readAll();  // comes back, which is the test
    EXPECT_TRUE(scene.waitForConnections(0));
}

TEST_F(EndOfAccessTest, AccessThatHasEndedBeforeTheStreamBeganEndsIt) {
    end(false);
    Client client(scene.port());
    ASSERT_TRUE(client.send("GET /waiting HTTP/1.0\r\n\r\n"));

    ASSERT_TRUE(client.readTo("\r\n\r\n"));
    EXPECT_EQ("", client.readAll());
}

TEST_F(EndOfAccessTest, RestOfAFileIsNotSent) {
    Client client(scene.port());
    begin(client, "/file", "x");

    end(true);

    EXPECT_GT(kFileSize / 2, client.readAll().size());
}

TEST_F(EndOfAccessTest, FileIsSentWholeWhileTheAccessLasts) {
    Client client(scene.port());
    begin(client, "/file", "x");

    EXPECT_EQ(kFileSize - 1, client.readAll().size());
}

TEST_F(EndOfAccessTest, ClientWhoGoesEndsTheStreamAsBefore) {
    {
        Client client(scene.port());
        begin(client, "/waiting", "begun\n");
    }

    EXPECT_TRUE(scene.waitForConnections(0));
}

TEST_F(EndOfAccessTest, StreamsEndWhileOthersAreTold) {
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        Client client(scene.port());
        begin(client, "/waiting", "begun\n");
        wakeUps.wakeForEndOfAccess();
        client.reset();
        wakeUps.wakeForEndOfAccess();
    }

    EXPECT_TRUE(scene.waitForConnections(0));
}

}  // namespace
}  // namespace kolvan::server::api
