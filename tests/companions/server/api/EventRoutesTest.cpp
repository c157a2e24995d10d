#include "companions/server/api/EventRoutes.h"

#include "companions/server/api/CollectionFollower.h"
#include "companions/server/api/Listeners.h"
#include "tests/companions/server/profiles/PprofFile.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <atomic>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;

using testing::ElementsAre;
using testing::HasSubstr;

struct Event {
    std::string id;
    std::string name;
    std::string data;
};

/// Somebody who listens to a collection.
class Listener {
public:
    Listener(const ApiScene& scene, const Collection& collection, const std::string& lastId = "")
        : Listener(scene, collection, "Authorization: Bearer " + scene.token(Role::Viewer),
                   lastId) {}

    /// @param access the field that says who it is
    Listener(const ApiScene& scene, const Collection& collection, const std::string& access,
             const std::string& lastId)
        : client(scene.port()) {
        // A client of HTTP/1.0 gets the events without the marks of chunks.
        std::string request = "GET /api/v1/collections/" + collection.id.text +
                              "/events HTTP/1.0\r\n" + access + "\r\n";
        if (!lastId.empty()) {
            request += "Last-Event-ID: " + lastId + "\r\n";
        }
        (void)client.send(request + "\r\n");  // the events tell
        head = client.readTo("\r\n\r\n").value_or("");
    }

    /// The next event; nothing when there is none any more.
    std::optional<Event> next() {
        const auto text = client.readTo("\n\n");
        if (!text) {
            return std::nullopt;
        }
        Event event;
        for (std::size_t begin = 0; begin < text->size();) {
            const std::size_t end = std::min(text->find('\n', begin), text->size());
            const std::size_t colon = text->find(": ", begin);
            const std::string name = text->substr(begin, colon - begin);
            std::string& value = name == "id"      ? event.id
                                 : name == "event" ? event.name
                                                   : event.data;
            value += text->substr(colon + 2, end - colon - 2);
            begin = end + 1;
        }
        return event;
    }

    /// The next event that has this name.
    Event next(const std::string& name) {
        for (;;) {
            std::optional<Event> event = next();
            if (!event) {
                throw std::runtime_error("no event \"" + name + "\" comes any more");
            }
            if (event->name == name) {
                return *event;
            }
        }
    }

    /// What is left until the stream ends.
    std::vector<Event> rest() {
        std::vector<Event> events;
        while (std::optional<Event> event = next()) {
            events.push_back(*event);
        }
        return events;
    }

    std::string head;
    Client client;
};

rapidjson::Document parsed(const std::string& json) {
    rapidjson::Document document;
    document.Parse(json.c_str());
    return document;
}

std::string stateOf(const Event& event) {
    return parsed(event.data)["state"].GetString();
}

std::vector<std::string> namesOf(const std::vector<Event>& events) {
    std::vector<std::string> names;
    for (const Event& event : events) {
        names.push_back(event.name);
    }
    return names;
}

/// The text of a channel, put together; a piece that does not follow the one before is an error.
std::string outputOf(const std::vector<Event>& events, const std::string& channel) {
    std::string text;
    for (const Event& event : events) {
        if (event.name != "output") {
            continue;
        }
        const rapidjson::Document output = parsed(event.data);
        if (output["channel"].GetString() == channel) {
            EXPECT_EQ(text.size(), output["offset"].GetUint64());
            text.append(output["text"].GetString(), output["text"].GetStringLength());
        }
    }
    return text;
}

class EventRoutesTest : public testing::Test {
protected:
    EventRoutesTest() { start(); }

    /// Another server goes on with the same data.
    void start() {
        scene.reset();
        scene.emplace(directory.path());
    }

    Collection collect() { return scene->addCollection(agent()); }

    Collection run() {
        const Collection collection = collect();
        scene->confirmAll(agent());
        return collection;
    }

    const Agent& agent() {
        if (!known) {
            known = scene->addAgent("build-7");
        }
        return *known;
    }

    void print(const Collection& collection, std::string_view bytes) {
        scene->say(collection, OutputChannel::Stdout, bytes);
    }

    const TemporaryDirectory directory;
    std::optional<ApiScene> scene;
    std::optional<Agent> known;
};

TEST_F(EventRoutesTest, ListenerHearsHowItIsFirstAndThenWhatBecomesOfIt) {
    const Collection collection = collect();
    Listener listener(*scene, collection);

    EXPECT_THAT(listener.head, HasSubstr("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(listener.head, HasSubstr("\r\nContent-Type: text/event-stream\r\n"));
    const Event first = listener.next("state");
    EXPECT_EQ(scene->get("/api/v1/collections/" + collection.id.text).body, first.data);
    EXPECT_EQ("waiting", stateOf(first));

    scene->confirmAll(agent());
    EXPECT_EQ("running", stateOf(listener.next("state")));
    (void)scene->send("PATCH", "/api/v1/collections/" + collection.id.text, R"({"name":"new"})");
    EXPECT_STREQ("new", parsed(listener.next("state").data)["name"].GetString());
    EXPECT_EQ(202,
              scene->send("POST", "/api/v1/collections/" + collection.id.text + "/stop").status);
    EXPECT_EQ("stopping", stateOf(listener.next("state")));
    scene->end(collection, 0);
    EXPECT_EQ("done", stateOf(listener.next("state")));
    EXPECT_FALSE(listener.next());
}

TEST_F(EventRoutesTest, OutputComesAsItIsWritten) {
    const Collection collection = run();
    Listener listener(*scene, collection);
    (void)listener.next("state");

    print(collection, "one\n");
    EXPECT_EQ(R"({"channel":"stdout","offset":0,"text":"one\n"})", listener.next("output").data);
    print(collection, "two\r\n");
    EXPECT_EQ(R"({"channel":"stdout","offset":4,"text":"two\r\n"})", listener.next("output").data);
    scene->say(collection, OutputChannel::Stderr, "oh");
    EXPECT_EQ(R"({"channel":"stderr","offset":0,"text":"oh"})", listener.next("output").data);
}

TEST_F(EventRoutesTest, CharacterThatComesInTwoPiecesIsWhole) {
    const Collection collection = run();
    Listener listener(*scene, collection);

    print(collection, "a\xE2\x82");
    EXPECT_EQ(R"({"channel":"stdout","offset":0,"text":"a"})", listener.next("output").data);
    print(collection,
          "\xAC"
          "b");
    EXPECT_EQ(
        "{\"channel\":\"stdout\",\"offset\":1,\"text\":\"\xE2\x82\xAC"
        "b\"}",
        listener.next("output").data);
}

TEST_F(EventRoutesTest, BytesThatAreNoTextAreReplaced) {
    const Collection collection = run();
    print(collection, std::string_view("\xFF\x00\x1B[2J\xE2\x82", 8));
    scene->end(collection, 0);

    Listener listener(*scene, collection);

    EXPECT_EQ(
        "{\"channel\":\"stdout\",\"offset\":0,\"text\":\"\xEF\xBF\xBD\\u0000\\u001B[2J"
        "\xEF\xBF\xBD\xEF\xBF\xBD\"}",
        listener.next("output").data);
}

TEST_F(EventRoutesTest, ProgressIsWhatTheCollectorReportedLast) {
    const Collection collection = run();
    scene->say(
        collection, OutputChannel::Feedback,
        "<collection state=\"started\"/>\n<progress elapsed=\"1.0\" samples=\"20\"/>\n"
        "<progress elapsed=\"2.0\" stacks=\"1998\" top1=\"72.1 % f&lt;&quot;&gt;\"/>\n<prog");
    Listener listener(*scene, collection);

    EXPECT_EQ(R"({"elapsedSeconds":2.0,"samples":1998,"hottest":"f<\">"})",
              listener.next("progress").data);
    scene->say(collection, OutputChannel::Feedback, "ress elapsed=\"3.0\" stacks=\"2997\"/>\n");
    EXPECT_EQ(R"({"elapsedSeconds":3.0,"samples":2997})", listener.next("progress").data);
}

TEST_F(EventRoutesTest, FeedbackWithoutLinesIsPassedOver) {
    const Collection collection = run();
    scene->say(collection, OutputChannel::Feedback, std::string(100'000, 'x'));
    scene->say(collection, OutputChannel::Feedback, "\n<progress elapsed=\"1.0\"/>\n<progress");
    scene->end(collection, 0);

    Listener listener(*scene, collection);

    EXPECT_THAT(namesOf(listener.rest()), ElementsAre("progress", "state"));
}

TEST_F(EventRoutesTest, EndedCollectionTellsEverythingAndTheFinalStateLast) {
    const Collection collection = run();
    print(collection, "text");
    scene->upload(collection, "data.0/profile.pb.gz",
                  profiles::test::PprofFile().sample("main;hash", {7, 700}).file());
    scene->end(collection, 0);

    const ReceivedResponse response =
        scene->get("/api/v1/collections/" + collection.id.text + "/events");
    Listener listener(*scene, collection);
    const std::vector<Event> events = listener.rest();

    EXPECT_TRUE(response.complete);
    ASSERT_THAT(namesOf(events), ElementsAre("output", "top", "state"));
    EXPECT_EQ(700U, parsed(events[1].data)["total"].GetUint64());
    EXPECT_STREQ("hash", parsed(events[1].data)["functions"][0]["name"].GetString());
    EXPECT_EQ("done", stateOf(events[2]));
    EXPECT_TRUE(parsed(events[2].data)["hasProfile"].GetBool());
}

TEST_F(EventRoutesTest, ProfileThatCannotBeReadOrShownLeavesTheTopOut) {
    const Collection broken = run();
    scene->upload(broken, "data.0/profile.pb.gz", "no profile");
    scene->end(broken, 0);
    profiles::test::PprofFile large;
    for (int function = 0; function < 20; ++function) {
        large.sample("main;" + std::string(100'000, static_cast<char>('a' + function)), {1, 1});
    }
    const Collection huge = run();
    scene->upload(huge, "data.0/profile.pb.gz", large.file());
    scene->end(huge, 0);

    EXPECT_THAT(namesOf(Listener(*scene, broken).rest()), ElementsAre("state"));
    EXPECT_THAT(namesOf(Listener(*scene, huge).rest()), ElementsAre("state"));
}

TEST_F(EventRoutesTest, WhoComesBackGoesOnBehindTheLastEvent) {
    const Collection collection = run();
    std::optional<Listener> listener(std::in_place, *scene, collection);
    print(collection, "one");
    const Event last = listener->next("output");
    listener.reset();
    print(collection, "two");
    scene->say(collection, OutputChannel::Feedback, "<progress elapsed=\"1.0\"/>\n");

    listener.emplace(*scene, collection, last.id);

    EXPECT_EQ("running", stateOf(listener->next().value()));
    EXPECT_EQ(R"({"channel":"stdout","offset":3,"text":"two"})", listener->next().value().data);
    EXPECT_EQ("progress", listener->next().value().name);
}

TEST_F(EventRoutesTest, WhoComesBackToTheNextServerGoesOn) {
    const Collection collection = run();
    print(collection, "one");
    scene->say(collection, OutputChannel::Feedback, "<progress elapsed=\"1.0\"/>\n");
    std::string last;
    {
        Listener listener(*scene, collection);
        last = listener.next("progress").id;
        EXPECT_EQ(0U, scene->stop());
        EXPECT_FALSE(listener.next());
    }
    start();
    print(collection, "two");
    scene->end(collection, 0);

    Listener listener(*scene, collection, last);

    const std::vector<Event> events = listener.rest();
    ASSERT_THAT(namesOf(events), ElementsAre("output", "state"));
    EXPECT_EQ(R"({"channel":"stdout","offset":3,"text":"two"})", events[0].data);
}

TEST_F(EventRoutesTest, WhoHasHeardTheEndIsToldNotToComeBack) {
    const Collection collection = run();
    scene->upload(collection, "data.0/profile.pb.gz",
                  profiles::test::PprofFile().sample("main", {7, 700}).file());
    scene->end(collection, 0);
    const std::vector<Event> events = Listener(*scene, collection).rest();
    ASSERT_THAT(namesOf(events), ElementsAre("top", "state"));

    EXPECT_THAT(namesOf(Listener(*scene, collection, events[0].id).rest()), ElementsAre("state"));
    Listener again(*scene, collection, events[1].id);
    EXPECT_THAT(again.head, HasSubstr("HTTP/1.1 204 No Content"));
}

TEST_F(EventRoutesTest, IdThatIsNoneOfOursDoesNoHarm) {
    const Collection collection = run();
    print(collection, "one");
    scene->end(collection, 0);

    const std::string start = collection.start.text;
    for (const std::string& id :
         {std::string("5"), std::string("../../etc/passwd"), std::string("../etc.0.0.0.0"),
          std::string("another-operation.1.1.1.2"), start + ".0.0.0.7", start + ".-1.0.0.0"}) {
        EXPECT_EQ("one", outputOf(Listener(*scene, collection, id).rest(), "stdout")) << id;
    }
    const std::string beyond = start + ".999.18446744073709551615.18446744073709551615.0";
    EXPECT_THAT(namesOf(Listener(*scene, collection, beyond).rest()), ElementsAre("state"));
}

TEST_F(EventRoutesTest, StartThatWasSentAgainBeginsAnew) {
    const Collection collection = collect();
    (void)scene->store.operations().take(agent().id, 16);
    print(collection, "first");
    Listener listener(*scene, collection);
    EXPECT_EQ(R"({"channel":"stdout","offset":0,"text":"first"})", listener.next("output").data);

    EXPECT_EQ(
        202,
        scene->send("POST", "/api/v1/collections/" + collection.id.text + "/send-again").status);
    const Collection second = scene->store.collections().find(collection.id).value();
    ASSERT_NE(collection.start, second.start);
    print(second, "second");

    EXPECT_EQ(R"({"channel":"stdout","offset":0,"text":"second"})", listener.next("output").data);
}

TEST_F(EventRoutesTest, TenListenersHearTheSame) {
    const Collection collection = run();
    std::string expected;
    std::list<Listener> listeners;
    std::vector<std::future<std::vector<Event>>> heard;
    for (int number = 0; number < 10; ++number) {
        Listener& listener = listeners.emplace_back(*scene, collection);
        heard.push_back(std::async(std::launch::async, [&listener] { return listener.rest(); }));
    }
    for (int line = 0; line < 500; ++line) {
        const std::string text = std::to_string(line) + std::string(1000, 'x') + '\n';
        expected += text;
        print(collection, text);
    }
    scene->end(collection, 0);

    for (auto& events : heard) {
        const std::vector<Event> all = events.get();
        EXPECT_EQ(expected, outputOf(all, "stdout"));
        EXPECT_EQ("done", stateOf(all.back()));
    }
}

TEST_F(EventRoutesTest, ListenerWhoNeverReadsKeepsNobodyBack) {
    const Collection collection = run();
    Listener deaf(*scene, collection);
    Listener listener(*scene, collection);
    std::string expected;
    for (int piece = 0; piece < 256; ++piece) {
        expected += std::string(64 * 1024, static_cast<char>('a' + piece % 26));
    }
    print(collection, expected);
    scene->end(collection, 0);

    EXPECT_EQ(expected, outputOf(listener.rest(), "stdout"));
    EXPECT_EQ(200, scene->get("/api/v1/agents").status);
}

TEST_F(EventRoutesTest, LookTakesBoundedMemoryWhateverThereIs) {
    const Collection collection = run();
    for (const auto channel :
         {OutputChannel::Stdout, OutputChannel::Stderr, OutputChannel::Feedback}) {
        scene->say(collection, channel, std::string(1024 * 1024, '\x01'));
    }
    api::CollectionFollower follower(scene->parts(), collection.id, {});

    std::size_t looks = 1;
    for (api::News news = follower.look(); news.more; news = follower.look(), ++looks) {
        EXPECT_GE(512U * 1024, news.events.size());
    }
    EXPECT_LT(30U, looks);
}

TEST_F(EventRoutesTest, ListenerWhoGoesIsForgotten) {
    const Collection collection = run();
    Listener gone(*scene, collection);
    Listener cut(*scene, collection);
    (void)gone.next("state");
    (void)cut.next("state");

    gone.client.endSending();
    cut.client.reset();

    EXPECT_TRUE(scene->server.waitForConnections(0));
}

TEST_F(EventRoutesTest, ListenerWithARevokedTokenHearsNothingMore) {
    const Collection collection = run();
    const auto lost = scene->tokens.addApiToken("lost", Role::Viewer, {});
    Listener listener(*scene, collection, "Authorization: Bearer " + lost.text, "");
    Listener other(*scene, collection);
    (void)listener.next("state");
    (void)other.next("state");

    ApiRequest revoke{"DELETE", "/api/v1/tokens/" + lost.token.id.text};
    EXPECT_EQ(204, scene->send(revoke.with(scene->token(Role::Administrator))).status);

    EXPECT_FALSE(listener.next());
    print(collection, "more");
    EXPECT_EQ("output", other.next().value().name);
}

TEST_F(EventRoutesTest, ListenerHearsNothingMoreWhenTheSessionEnds) {
    const Collection collection = run();
    const auto listen = [&](const NewSession& session) {
        auto listener = std::make_unique<Listener>(*scene, collection,
                                                   "Cookie: kolvan_session=" + session.cookie, "");
        (void)listener->next("state");
        return listener;
    };
    const NewSession loggedOut = scene->logIn("ada", Role::Viewer);
    const NewSession removed = scene->logIn("ben", Role::Viewer);
    const NewSession demoted = scene->logIn("eve", Role::Engineer);
    const auto ada = listen(loggedOut);
    const auto ben = listen(removed);
    const auto eve = listen(demoted);

    scene->logins.logOut(loggedOut.cookie, {});
    EXPECT_FALSE(ada->next());
    (void)scene->users.remove(removed.signedIn.user.id, {});
    EXPECT_FALSE(ben->next());
    (void)scene->users.change(demoted.signedIn.user.id, Role::Viewer, {}, {});
    EXPECT_FALSE(eve->next());
}

TEST_F(EventRoutesTest, ListeningDoesNotKeepASessionAlive) {
    const Collection collection = run();
    const NewSession session = scene->logIn("ada", Role::Viewer);
    Listener listener(*scene, collection, "Cookie: kolvan_session=" + session.cookie, "");
    (void)listener.next("state");

    scene->clock.advance(Logins::kLongestIdle / 2);
    print(collection, "one");
    EXPECT_EQ("output", listener.next().value().name);
    scene->clock.advance(Logins::kLongestIdle / 2);
    print(collection, "two");

    EXPECT_FALSE(listener.next());
}

TEST_F(EventRoutesTest, ListenerBeyondTheNumberOfOneIsRefusedUntilAnotherOneGoes) {
    const Collection collection = run();
    std::list<Listener> listeners;
    for (std::size_t number = 0; number < api::Listeners::kMostOfOne; ++number) {
        (void)listeners.emplace_back(*scene, collection).next("state");
    }
    const std::string path = "/api/v1/collections/" + collection.id.text + "/events";

    const ReceivedResponse refused = scene->get(path);
    EXPECT_EQ(503, refused.status);
    EXPECT_EQ(1U, refused.fields.count("retry-after"));
    Listener other(*scene, collection, "Authorization: Bearer " + scene->token(Role::Engineer), "");
    EXPECT_EQ("running", stateOf(other.next("state")));

    listeners.pop_front();
    ASSERT_TRUE(scene->server.waitForConnections(api::Listeners::kMostOfOne));
    EXPECT_EQ("running", stateOf(Listener(*scene, collection).next("state")));
}

TEST_F(EventRoutesTest, ServerThatStopsLetsGoOfListeners) {
    const Collection collection = run();
    Listener waiting(*scene, collection);
    (void)waiting.next("state");

    EXPECT_EQ(0U, scene->stop());

    EXPECT_FALSE(waiting.next());
}

TEST_F(EventRoutesTest, CollectionThatIsRemovedEndsTheEvents) {
    const Collection collection = run();
    print(collection, std::string(1024 * 1024, 'x'));
    Listener listener(*scene, collection);
    scene->end(collection, 0);
    EXPECT_EQ(204, scene->send("DELETE", "/api/v1/collections/" + collection.id.text).status);

    (void)listener.rest();  // what had gone out already, and an end
    Listener late(*scene, collection);
    EXPECT_THAT(late.head, HasSubstr("HTTP/1.1 404 "));
}

TEST_F(EventRoutesTest, EndIsNeverMissed) {
    for (int round = 0; round < 50; ++round) {
        const Collection collection = run();
        auto ending = std::async(std::launch::async, [&] { scene->end(collection, 0); });

        Listener listener(*scene, collection);

        EXPECT_EQ("done", stateOf(listener.rest().back()));
        ending.get();
    }
}

/// Keeps what is written.
class KeptText final : public http::BodyWriter {
public:
    /// @param mostWrites after so many the listener has gone
    explicit KeptText(std::size_t mostWrites) : left(mostWrites) {}

    http::Awaitable<bool> write(std::string_view bytes) override {
        text += bytes;
        co_return bytes.empty() || --left > 0;
    }

    void onEnd(std::function<void()> /*ended*/) override {}

    std::string text;

private:
    std::size_t left;
};

class SignOfLifeTest : public EventRoutesTest {
protected:
    /// What a listener hears in so many pieces, with a sign of life each millisecond.
    std::string hear(const Collection& collection, std::size_t pieces) {
        KeptText writer(pieces);
        const auto send = [&]() -> http::Awaitable<bool> {
            auto sent = api::sendEvents(scene->parts(), collection.id, api::EventPosition(), writer,
                                        std::chrono::milliseconds(1));
            co_await std::move(sent);
            co_return true;
        };
        EXPECT_TRUE(scene->server.network().spawn(send()).get());
        return writer.text;
    }
};

TEST_F(SignOfLifeTest, CommentComesWhereThereIsNothingElse) {
    const Collection collection = run();

    const std::string heard = hear(collection, 3);

    EXPECT_THAT(heard, testing::StartsWith("id: "));
    EXPECT_THAT(heard, testing::EndsWith("}\n\n:\n\n:\n\n"));
}

TEST_F(SignOfLifeTest, StartThatNobodyConfirmsIsToldOfWithoutAnyChange) {
    const Collection collection = collect();
    (void)scene->store.operations().take(agent().id, 16);
    scene->clock.advance(std::chrono::seconds(31));

    EXPECT_THAT(hear(collection, 1), HasSubstr(R"("notConfirmed":true)"));
}

}  // namespace
}  // namespace kolvan::test
