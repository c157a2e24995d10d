#include "companions/server/api/ProfileViews.h"

#include "companions/server/profiles/Filter.h"
#include "tests/companions/server/profiles/PprofFile.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/Gate.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using namespace kolvan::server;
using api::ProfileViews;
using api::ViewLimits;
using profiles::Sink;
using Profiles = ProfileViews::Profiles;

/// A server whose views are written by the test.
class ProfileViewsTest : public testing::Test {
protected:
    ProfileViewsTest() {
        directory.write("profile", profiles::test::PprofFile().sample("main", {1, 1}).file());
        fs::create_directory(directory.path() / "views");
    }

    ~ProfileViewsTest() override {
        if (views) {
            (void)scene.stop();  // whatever is open still, is broken off
        }
    }

    /// Answers "/NAME" with a view of the profile.
    void serve(const std::string& name, ProfileViews::Write write) {
        writers[name] = std::move(write);
    }

    void start(const ViewLimits& limits = {}) {
        views.emplace(names, directory.path() / "views", limits);
        for (const auto& [name, write] : writers) {
            scene.router.add("GET", '/' + name, [this, &write = write](http::Request& request) {
                ++requests;
                return views->make(request, paths, "text/plain", write);
            });
        }
        scene.start();
    }

    ReceivedResponse get(const std::string& name) { return Client(scene.port()).get('/' + name); }

    /// Blocks until so many requests have come, and the last one waits for its view.
    void waitForRequests(int count) {
        while (requests < count) {
            std::this_thread::yield();
        }
        scene.network().call([] {});  // behind the step that has counted it
    }

    static void ask(Client& client, const std::string& name) {
        (void)client.send("GET /" + name + " HTTP/1.1\r\nHost: test\r\n\r\n");
    }

    const TemporaryDirectory directory;
    const std::vector<fs::path> paths = {directory.path() / "profile"};
    const profiles::NoCodeNames names;
    std::atomic<int> requests{0};
    std::map<std::string, ProfileViews::Write> writers;
    ServerScene scene;
    std::optional<ProfileViews> views;
};

void writeName(const Profiles& read, const Sink& sink) {
    sink(read.at(0)->functions.back().name);
}

ProfileViews::Write letters(std::size_t count) {
    return [count](const Profiles&, const Sink& sink) {
        const std::string piece(64 * 1024, 'x');
        for (std::size_t left = count; left > 0; left -= std::min(left, piece.size())) {
            sink(std::string_view(piece).substr(0, left));
        }
    };
}

TEST_F(ProfileViewsTest, TopOfTheEventsIsMadeOnceForAllWhoListen) {
    start();
    const auto top = [&] { return scene.network().spawn(views->makeTop(paths.front())).get(); };

    const std::shared_ptr<const std::string> first = top();

    ASSERT_TRUE(first);
    EXPECT_NE(std::string::npos, first->find(R"("name":"main")"));
    EXPECT_EQ(first, top());
    directory.write("profile", profiles::test::PprofFile().sample("other", {1, 1}).file());
    EXPECT_NE(std::string::npos, top()->find(R"("name":"other")"));
}

TEST_F(ProfileViewsTest, ThereIsNoTopOfWhatCannotBeReadOrHasGone) {
    start();
    const fs::path file = paths.front();
    const auto top = [&] { return scene.network().spawn(views->makeTop(file)).get(); };

    directory.write("profile", "no profile");
    EXPECT_FALSE(top());
    fs::remove(file);
    EXPECT_FALSE(top());
}

TEST_F(ProfileViewsTest, ViewIsMadeOfTheProfile) {
    serve("name", writeName);
    start();

    const ReceivedResponse response = get("name");

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("main", response.body);
    EXPECT_EQ("text/plain", response.fields.at("content-type"));
    EXPECT_EQ("nosniff", response.fields.at("x-content-type-options"));
}

TEST_F(ProfileViewsTest, OneViewIsMadeAtATime) {
    std::atomic<int> atOnce{0};
    std::atomic<int> most{0};
    serve("slow", [&](const Profiles&, const Sink& sink) {
        most = std::max(most.load(), ++atOnce);
        for (int turn = 0; turn < 100; ++turn) {
            std::this_thread::yield();
        }
        sink("done");
        --atOnce;
    });
    start();

    std::vector<std::future<std::string>> answers;
    for (int client = 0; client < 10; ++client) {
        answers.push_back(std::async(std::launch::async, [this] { return get("slow").body; }));
    }
    for (std::future<std::string>& answer : answers) {
        EXPECT_EQ("done", answer.get());
    }

    EXPECT_EQ(1, most);
}

TEST_F(ProfileViewsTest, LargeViewIsAsItWasWrittenAndLeavesNoFile) {
    std::string text;
    for (int line = 0; text.size() < 3 * api::ViewText::kMostInMemory; ++line) {
        text += std::to_string(line) + '\n';
    }
    serve("large", [&text](const Profiles&, const Sink& sink) {
        for (std::size_t begin = 0; begin < text.size(); begin += 1000) {
            sink(std::string_view(text).substr(begin, 1000));
        }
    });
    start();

    const ReceivedResponse response = get("large");

    EXPECT_TRUE(response.complete);
    EXPECT_TRUE(text == response.body);
    EXPECT_EQ(std::to_string(text.size()), response.fields.at("content-length"));
    EXPECT_TRUE(fs::is_empty(directory.path() / "views"));
}

TEST_F(ProfileViewsTest, ClientThatReadsNothingKeepsNobodyWaiting) {
    serve("large", letters(64U << 20U));
    serve("name", writeName);
    start();
    std::vector<std::unique_ptr<Client>> idle;
    for (int client = 0; client < 8; ++client) {
        idle.push_back(std::make_unique<Client>(scene.port()));
        ask(*idle.back(), "large");
        ASSERT_TRUE(idle.back()->readTo("\r\n\r\n"));
    }

    EXPECT_EQ("main", get("name").body);
}

TEST_F(ProfileViewsTest, ViewOfAClientThatHasGoneIsNotMade) {
    std::shared_ptr<Gate> begun;
    std::shared_ptr<Gate> mayEnd;
    std::atomic<int> made{0};
    serve("first", [&](const Profiles&, const Sink& sink) {
        begun->open();
        mayEnd->wait();
        sink("first");
    });
    serve("second", [&](const Profiles&, const Sink&) { ++made; });
    serve("last", writeName);
    start();

    // The server learns of the end some time after it: perhaps after the view was begun.
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    do {
        made = 0;
        requests = 0;
        begun = std::make_shared<Gate>();
        mayEnd = std::make_shared<Gate>();
        Client first(scene.port());
        ask(first, "first");
        begun->wait();
        Client second(scene.port());
        ask(second, "second");
        waitForRequests(2);
        second.reset();
        EXPECT_EQ(404, get("nothing").status);
        mayEnd->open();

        EXPECT_EQ("first", first.readResponse().body);
        EXPECT_EQ("main", get("last").body);
    } while (made != 0 && std::chrono::steady_clock::now() < deadline);

    EXPECT_EQ(0, made);
}

TEST_F(ProfileViewsTest, ClientThatGoesEndsItsView) {
    Gate begun;
    Gate ended;
    serve("endless", [&](const Profiles&, const Sink& sink) {
        begun.open();
        try {
            for (;;) {
                sink("");
            }
        } catch (...) {  // whatever ends it
            ended.open();
            throw;
        }
    });
    serve("name", writeName);
    start();
    Client client(scene.port());
    ask(client, "endless");
    begun.wait();

    client.reset();

    ended.wait();
    EXPECT_EQ("main", get("name").body);
    EXPECT_TRUE(scene.log().empty());
}

TEST_F(ProfileViewsTest, EndOfTheServerEndsWhatIsBeingMade) {
    Gate begun;
    std::atomic<bool> ended{false};
    serve("endless", [&](const Profiles&, const Sink& sink) {
        begun.open();
        try {
            for (;;) {
                sink("");
            }
        } catch (...) {  // whatever ends it
            ended = true;
            throw;
        }
    });
    start();
    Client client(scene.port());
    ask(client, "endless");
    begun.wait();

    const std::size_t left = scene.stop(std::chrono::seconds(0));
    views.reset();

    EXPECT_EQ(1U, left);
    EXPECT_TRUE(ended);
}

TEST_F(ProfileViewsTest, WhatCannotBeShownIsSaidWithItsSentence) {
    serve("filter",
          [](const Profiles&, const Sink&) { throw profiles::BadFilter("No such type."); });
    serve("large",
          [](const Profiles&, const Sink&) { throw profiles::ViewTooLarge("Too large."); });
    serve("name", writeName);
    start();

    EXPECT_EQ(422, get("filter").status);
    EXPECT_EQ(R"({"title":"Unprocessable Entity","status":422,"detail":"No such type."})",
              get("filter").body);
    EXPECT_EQ(R"({"title":"Unprocessable Entity","status":422,"detail":"Too large."})",
              get("large").body);
    directory.write("profile", "no profile");
    EXPECT_EQ(R"({"title":"Unprocessable Entity","status":422,"detail":)"
              R"("This is no profile: it is not compressed by gzip."})",
              get("name").body);
}

TEST_F(ProfileViewsTest, LargeViewsWaitForTheRoomOfThoseThatAreBeingSent) {
    serve("small", letters(api::ViewText::kMostInMemory));
    serve("fits", letters(600 * 1024));
    serve("large", letters(2U << 20U));
    ViewLimits limits;
    limits.sentBytes = 1U << 20U;
    start(limits);

    const ReceivedResponse refused = get("large");

    EXPECT_EQ(503, refused.status);
    EXPECT_EQ("10", refused.fields.at("retry-after"));
    EXPECT_EQ(R"({"title":"Service Unavailable","status":503,"detail":)"
              R"("Too many large views are being sent; try again in a while."})",
              refused.body);
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_EQ(600U * 1024U, get("fits").body.size());
    }
    EXPECT_EQ(api::ViewText::kMostInMemory, get("small").body.size());
}

TEST_F(ProfileViewsTest, ProfileIsForgottenWhenNobodyLooksAtItAnyMore) {
    std::weak_ptr<const profiles::Profile> kept;
    serve("name", [&](const Profiles& read, const Sink& sink) {
        kept = read.at(0);
        writeName(read, sink);
    });
    ViewLimits limits;
    limits.keptFor = std::chrono::milliseconds(1);
    start(limits);

    EXPECT_EQ("main", get("name").body);

    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!kept.expired() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(kept.expired());
    EXPECT_EQ("main", get("name").body);
}

}  // namespace
}  // namespace kolvan::test
