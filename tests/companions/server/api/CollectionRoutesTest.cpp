#include "companions/server/api/CollectionRoutes.h"

#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kCollections[] = "/api/v1/collections";

rapidjson::Document parsed(const std::string& json) {
    rapidjson::Document document;
    document.Parse(json.c_str());
    return document;
}

std::string detailOf(const ReceivedResponse& response) {
    return parsed(response.body)["detail"].GetString();
}

std::string pathOf(const Collection& collection, const std::string& rest = "") {
    return std::string(kCollections) + '/' + collection.id.text + rest;
}

class CollectionRoutesTest : public testing::Test {
protected:
    CollectionRoutesTest() : agent(scene.addAgent("build-7")) {}

    ReceivedResponse make(const std::string& target, const std::string& more = "") {
        return scene.send("POST", kCollections,
                          R"({"agent":")" + agent.id.text + R"(","target":)" + target + more + '}');
    }

    /// A part of the options that the agent gets for the one collection that there is.
    std::string options() {
        const std::vector<Operation> taken = scene.store.operations().take(agent.id, 16);
        EXPECT_EQ(1U, taken.size());
        return parsed(taken.at(0).parameters)["options"].GetString();
    }

    Collection run() {
        const Collection collection = scene.addCollection(agent);
        scene.confirmAll(agent);
        return collection;
    }

    Collection done() {
        const Collection collection = run();
        scene.end(collection, 0);
        return collection;
    }

    std::string state(const Collection& collection) {
        return parsed(scene.get(pathOf(collection)).body)["state"].GetString();
    }

    /// Names on a page of collections.
    std::vector<std::string> names(const std::string& query) {
        const ReceivedResponse response = scene.get(kCollections + query);
        EXPECT_EQ(200, response.status) << response.body;
        const rapidjson::Document page = parsed(response.body);
        std::vector<std::string> found;
        for (const auto& item : page["items"].GetArray()) {
            found.emplace_back(item["name"].GetString());
        }
        return found;
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
    const Agent agent;
};

// ---- Making

TEST_F(CollectionRoutesTest, CollectionIsMadeAndShown) {
    const ReceivedResponse made =
        make(R"({"pid":4711})", R"(,"profile":"wait","frequency":99,"durationSeconds":1.5,)"
                                R"("children":false,"name":"night","note":"why")");

    ASSERT_EQ(201, made.status) << made.body;
    const std::string id = parsed(made.body)["id"].GetString();
    EXPECT_EQ("/api/v1/collections/" + id, made.fields.at("location"));
    EXPECT_EQ(R"({"id":")" + id + R"(","agent":")" + agent.id.text +
                  R"(","agentName":"build-7","name":"night","note":"why","target":{"pid":4711},)"
                  R"("profile":"wait","frequency":99,"durationSeconds":1.5,"children":false,)"
                  R"("state":"waiting","notConfirmed":false,"exitCode":null,"error":null,)"
                  R"("hasProfile":false,"madeBy":"engineer","made":"2026-01-02T03:04:05.006Z",)"
                  R"("started":null,"ended":null})",
              made.body);
    EXPECT_EQ(made.body, scene.get(made.fields.at("location")).body);
    EXPECT_EQ(R"({"items":[)" + made.body + R"(],"next":null})", scene.get(kCollections).body);
    EXPECT_EQ("engineer collection.make " + id + " (process 4711)", scene.audit().back());
    EXPECT_EQ(
        "-r\nresults\n--profile\nwait\n--frequency\n99\n--duration\n1500ms\n--no-children\n"
        "--pid\n4711",
        options());
}

TEST_F(CollectionRoutesTest, AuditKeepsTheBeginningOfALongCommand) {
    const ReceivedResponse made = make(R"({"command":[")" + std::string(20'000, 'x') + "\"]}");

    ASSERT_EQ(201, made.status) << made.body;
    const std::string id = parsed(made.body)["id"].GetString();
    EXPECT_EQ("engineer collection.make " + id + " (command " + std::string(992, 'x') + ')',
              scene.audit().back());
}

TEST_F(CollectionRoutesTest, WhatNobodySaysIsAsTheContractHasIt) {
    const ReceivedResponse made =
        make(R"({"command":["/bin/true","a b"]})", R"(,"durationSeconds":null)");

    EXPECT_THAT(made.body, HasSubstr(R"("target":{"command":["/bin/true","a b"]},"profile":"cpu",)"
                                     R"("frequency":999,"durationSeconds":null,"children":true)"));
    EXPECT_EQ("-r\nresults\n--profile\ncpu\n--frequency\n999\n--\n/bin/true\na b", options());
}

TEST_F(CollectionRoutesTest, ArgumentsOfACommandStayArguments) {
    const ReceivedResponse made = make(
        R"-({"command":["--pid","1","--duration","$(reboot)","; reboot","-- --name","\u000D"]})-");

    ASSERT_EQ(201, made.status) << made.body;
    EXPECT_EQ(
        "-r\nresults\n--profile\ncpu\n--frequency\n999\n--\n"
        "--pid\n1\n--duration\n$(reboot)\n; reboot\n-- --name\n\r",
        options());
}

struct BadRequest {
    const char* target;
    const char* more;
    const char* detail;  // its beginning
};

class BadRequestTest : public CollectionRoutesTest,
                       public testing::WithParamInterface<BadRequest> {};

TEST_P(BadRequestTest, IsAProblemAndLeavesNothing) {
    const ReceivedResponse response = make(GetParam().target, GetParam().more);

    EXPECT_EQ(400, response.status);
    EXPECT_THAT(detailOf(response), StartsWith(GetParam().detail));
    EXPECT_EQ(R"({"items":[],"next":null})", scene.get(kCollections).body);
    EXPECT_TRUE(scene.store.operations().take(agent.id, 16).empty());
}

INSTANTIATE_TEST_SUITE_P(
    , BadRequestTest,
    testing::Values(
        BadRequest{"null", "", "\"target\" is missing."},
        BadRequest{"5", "", "\"target\" has to be an object."},
        BadRequest{"{}", "", "This cannot be profiled: a collection needs either a process"},
        BadRequest{R"({"pid":1,"command":["a"]})", "",
                   "This cannot be profiled: a collection needs either a process"},
        BadRequest{R"({"pid":1,"user":"a"})", "", "\"user\" is unknown here."},
        BadRequest{R"({"pid":0})", "", "\"pid\" has to be a whole number from 1 to 4194304."},
        BadRequest{R"({"pid":4194305})", "", "\"pid\" has to be a whole number"},
        BadRequest{R"({"pid":"1"})", "", "\"pid\" has to be a whole number"},
        BadRequest{R"({"pid":1.0})", "", "\"pid\" has to be a whole number"},
        BadRequest{R"({"command":[]})", "", "This cannot be profiled: "},
        BadRequest{R"({"command":"ls"})", "", "\"command\" has to be a list of 1000 strings"},
        BadRequest{R"({"command":["a",1]})", "", "\"command\" has to be a list of strings."},
        BadRequest{R"({"command":["a",""]})", "", "This cannot be profiled: an argument"},
        BadRequest{R"({"command":["a\n--pid\n1"]})", "", "This cannot be profiled: an argument"},
        BadRequest{R"({"command":["a\u0000b"]})", "", "This cannot be profiled: an argument"},
        BadRequest{R"({"command":["grep","-r","x"]})", "",
                   "This cannot be profiled: an argument of the command is \"-r\""},
        BadRequest{R"({"pid":1})", R"(,"profile":"memory")", "\"profile\" may not be \"memory\"."},
        BadRequest{R"({"pid":1})", R"(,"profile":"cpu\n--pid\n2")", "\"profile\" may not be"},
        BadRequest{R"({"pid":1})", R"(,"frequency":0)", "\"frequency\" has to be a whole number"},
        BadRequest{R"({"pid":1})", R"(,"frequency":10001)", "\"frequency\" has to be a whole"},
        BadRequest{R"({"pid":1})", R"(,"durationSeconds":0.0005)",
                   "\"durationSeconds\" has to be a number from 0.001 to 1000000."},
        BadRequest{R"({"pid":1})", R"(,"durationSeconds":1000001)", "\"durationSeconds\" has to"},
        BadRequest{R"({"pid":1})", R"(,"durationSeconds":"1")", "\"durationSeconds\" has to be"},
        BadRequest{R"({"pid":1})", R"(,"children":1)", "\"children\" has to be true or false."},
        BadRequest{R"({"pid":1})", R"(,"name":["a"])", "\"name\" has to be a string."},
        BadRequest{R"({"pid":1})", R"(,"user":"root")", "\"user\" is unknown here."}));

TEST_F(CollectionRoutesTest, LongNameIsCountedInCharacters) {
    const auto named = [&](std::size_t length) {
        std::string name;
        for (std::size_t i = 0; i < length; ++i) {
            name += "\xE2\x82\xAC";
        }
        return make(R"({"pid":1})", ",\"name\":\"" + name + '"');
    };

    EXPECT_EQ(201, named(200).status);
    EXPECT_EQ("\"name\" may have 200 characters at most.", detailOf(named(201)));
}

TEST_F(CollectionRoutesTest, AgentHasToBeThere) {
    const auto forAgent = [&](const std::string& id) {
        return scene.send("POST", kCollections, R"({"agent":)" + id + R"(,"target":{"pid":1}})");
    };

    EXPECT_EQ(404, forAgent(R"("nobody")").status);
    EXPECT_EQ("\"agent\" is missing.", detailOf(forAgent("null")));
    EXPECT_EQ("\"agent\" is missing.", detailOf(forAgent(R"("")")));
    EXPECT_EQ(400, forAgent('"' + std::string(65, 'a') + '"').status);
}

TEST_F(CollectionRoutesTest, BodyOfAnotherKindOrSizeIsAProblem) {
    EXPECT_EQ(400, scene.send("POST", kCollections, "{").status);
    EXPECT_EQ(413, make(R"({"pid":1})", ",\"note\":\"" + std::string(70'000, 'x') + '"').status);
    ApiRequest form;
    form.method = "POST";
    form.target = kCollections;
    form.contentType = "application/x-www-form-urlencoded";
    form.body = "agent=a";
    EXPECT_EQ(415, scene.send(form.with(scene.token(Role::Engineer))).status);
}

TEST_F(CollectionRoutesTest, ViewerLooksAndDoesNothing) {
    const Collection collection = run();
    const auto status = [&](const std::string& method, const std::string& target) {
        ApiRequest request;
        request.method = method;
        request.target = target;
        request.body = "{}";
        return scene.send(request.with(scene.token(Role::Viewer))).status;
    };

    EXPECT_EQ(403, status("POST", kCollections));
    for (const char* word : {"/stop", "/cancel", "/command", "/send-again"}) {
        EXPECT_EQ(403, status("POST", pathOf(collection, word))) << word;
    }
    EXPECT_EQ(403, status("PATCH", pathOf(collection)));
    EXPECT_EQ(403, status("DELETE", pathOf(collection)));
    EXPECT_EQ("running", state(collection));
}

// ---- Lists

TEST_F(CollectionRoutesTest, ListIsFiltered) {
    const Agent other = scene.addAgent("web-1");
    (void)scene.addCollection(agent, "first 100%");
    scene.clock.advance(std::chrono::seconds(10));
    const Collection second = scene.addCollection(other, "second");
    (void)scene.send("POST", pathOf(second, "/cancel"));
    ApiRequest request;
    request.method = "POST";
    request.target = kCollections;
    request.body = R"({"agent":")" + agent.id.text + R"(","target":{"pid":1},"name":"third"})";
    ASSERT_EQ(201, scene.send(request.with(scene.token(Role::Administrator))).status);

    EXPECT_THAT(names(""), ElementsAre("third", "second", "first 100%"));
    EXPECT_THAT(names("?agent=" + other.id.text), ElementsAre("second"));
    EXPECT_THAT(names("?agent=nobody"), ElementsAre());
    EXPECT_THAT(names("?state=cancelled"), ElementsAre("second"));
    EXPECT_THAT(names("?state=waiting&state=cancelled").size(), 3U);
    EXPECT_THAT(names("?text=FIRST"), ElementsAre("first 100%"));
    EXPECT_THAT(names("?text=%25"), ElementsAre("first 100%"));
    EXPECT_THAT(names("?text=_"), ElementsAre());
    EXPECT_THAT(names("?madeBy=administrator"), ElementsAre("third"));
    EXPECT_THAT(names("?madeFrom=2026-01-02T03:04:15.006Z"), ElementsAre("third", "second"));
    EXPECT_THAT(names("?madeUntil=2026-01-02T04:04:15.006%2B01:00"), ElementsAre("first 100%"));
    EXPECT_THAT(names("?text=%27%20OR%201=1%20--"), ElementsAre());
}

TEST_F(CollectionRoutesTest, FilterThatMakesNoSenseIsAProblem) {
    for (const char* query : {"?state=ended", "?madeFrom=today", "?madeUntil=", "?limit=x",
                              "?sort=name", "?agent=a&agent=b"}) {
        EXPECT_EQ(400, scene.get(std::string(kCollections) + query).status) << query;
    }
}

TEST_F(CollectionRoutesTest, PagesShowEachCollectionOnceWhileOthersComeAndGo) {
    std::multiset<std::string> expected;
    std::vector<Collection> made;
    for (int number = 0; number < 25; ++number) {
        made.push_back(scene.addCollection(agent, std::to_string(number)));
        expected.insert(std::to_string(number));
    }

    std::multiset<std::string> shown;
    std::string cursor;
    do {
        const rapidjson::Document page =
            parsed(scene
                       .get(std::string(kCollections) + "?limit=10" +
                            (cursor.empty() ? "" : "&cursor=" + cursor))
                       .body);
        for (const auto& item : page["items"].GetArray()) {
            shown.insert(item["name"].GetString());
        }
        cursor = page["next"].IsString() ? page["next"].GetString() : "";
        (void)scene.addCollection(agent, "late");
        const Collection removed = made.back();  // shown already
        made.pop_back();
        (void)scene.send("POST", pathOf(removed, "/cancel"));
        EXPECT_EQ(204, scene.send("DELETE", pathOf(removed)).status);
    } while (!cursor.empty());

    EXPECT_EQ(expected, shown);
}

// ---- Changing

TEST_F(CollectionRoutesTest, NameAndNoteAreChangedEachForItself) {
    const Collection collection = scene.addCollection(agent, "old");

    EXPECT_EQ(200, scene.send("PATCH", pathOf(collection), R"({"name":"new"})").status);
    const ReceivedResponse changed =
        scene.send("PATCH", pathOf(collection), R"({"note":"<b>\u0000\u202E"})");
    EXPECT_EQ(changed.body, scene.get(pathOf(collection)).body);
    EXPECT_STREQ("new", parsed(changed.body)["name"].GetString());
    EXPECT_EQ(std::string("<b>\0\xE2\x80\xAE", 7),
              std::string(parsed(changed.body)["note"].GetString(),
                          parsed(changed.body)["note"].GetStringLength()));
    EXPECT_EQ("", std::string(
                      parsed(scene.send("PATCH", pathOf(collection), R"({"name":""})").body)["name"]
                          .GetString()));
}

TEST_F(CollectionRoutesTest, ChangeThatMakesNoSenseIsAProblem) {
    const Collection collection = scene.addCollection(agent, "old");
    const auto change = [&](const std::string& body) {
        return detailOf(scene.send("PATCH", pathOf(collection), body));
    };

    EXPECT_EQ("\"name\" or \"note\" has to be given.", change("{}"));
    EXPECT_EQ("\"name\" may not be null.", change(R"({"name":null})"));
    EXPECT_EQ("\"note\" may not be null.", change(R"({"name":"new","note":null})"));
    EXPECT_EQ("\"state\" is unknown here.", change(R"({"name":"new","state":"done"})"));
    EXPECT_EQ("\"name\" has to be a string.", change(R"({"name":5})"));
    EXPECT_EQ("\"note\" may have 10000 characters at most.",
              change(R"({"note":")" + std::string(10'001, 'x') + "\"}"));
    EXPECT_THAT(names(""), ElementsAre("old"));
}

// ---- What is asked of a collection

TEST_F(CollectionRoutesTest, RunningCollectionIsStoppedOnce) {
    const Collection collection = run();

    const ReceivedResponse stopped = scene.send("POST", pathOf(collection, "/stop"));

    EXPECT_EQ(202, stopped.status);
    EXPECT_STREQ("stopping", parsed(stopped.body)["state"].GetString());
    EXPECT_EQ("engineer collection.stop " + collection.id.text + " ()", scene.audit().back());
    const std::vector<Operation> taken = scene.store.operations().take(agent.id, 16);
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ("collector:collection:command", taken.front().messageType);
    EXPECT_EQ(R"({"command":"stop"})", taken.front().parameters);
    const ReceivedResponse again = scene.send("POST", pathOf(collection, "/stop"));
    EXPECT_EQ(409, again.status);
    EXPECT_EQ("The collection does not run, or stops already.", detailOf(again));
}

TEST_F(CollectionRoutesTest, WaitingCollectionIsNotStopped) {
    EXPECT_EQ(409, scene.send("POST", pathOf(scene.addCollection(agent), "/stop")).status);
}

TEST_F(CollectionRoutesTest, WaitingCollectionIsCancelledAtOnce) {
    const Collection collection = scene.addCollection(agent);

    const ReceivedResponse cancelled = scene.send("POST", pathOf(collection, "/cancel"));

    EXPECT_EQ(202, cancelled.status);
    EXPECT_STREQ("cancelled", parsed(cancelled.body)["state"].GetString());
    EXPECT_TRUE(scene.store.operations().take(agent.id, 16).empty());
    const ReceivedResponse again = scene.send("POST", pathOf(collection, "/cancel"));
    EXPECT_EQ(409, again.status);
    EXPECT_EQ("The collection has ended.", detailOf(again));
}

TEST_F(CollectionRoutesTest, RunningCollectionIsToldToCancel) {
    const Collection collection = run();

    EXPECT_EQ(202, scene.send("POST", pathOf(collection, "/cancel")).status);

    EXPECT_EQ(R"({"command":"cancel"})",
              scene.store.operations().take(agent.id, 16).at(0).parameters);
    scene.end(collection, 5);
    EXPECT_EQ("cancelled", state(collection));
}

TEST_F(CollectionRoutesTest, WordReachesTheCollectorThatRuns) {
    const Collection collection = run();

    EXPECT_EQ(202,
              scene.send("POST", pathOf(collection, "/command"), R"({"command":"status"})").status);

    EXPECT_EQ(R"({"command":"status"})",
              scene.store.operations().take(agent.id, 16).at(0).parameters);
    EXPECT_EQ("engineer collection.command " + collection.id.text + " (status)",
              scene.audit().back());
}

TEST_F(CollectionRoutesTest, WordThatIsNoneReachesNobody) {
    const Collection collection = run();
    for (const char* body :
         {"{}", R"({"command":null})", R"({"command":""})", R"({"command":"Stop"})",
          R"({"command":"status\nstop"})", R"({"command":"status --force"})",
          R"({"command":["status"]})", R"({"command":"status","more":1})"}) {
        EXPECT_EQ(400, scene.send("POST", pathOf(collection, "/command"), body).status) << body;
    }

    EXPECT_TRUE(scene.store.operations().take(agent.id, 16).empty());
}

TEST_F(CollectionRoutesTest, WordComesTooEarlyOrTooLate) {
    const Collection waiting = scene.addCollection(agent);
    const ReceivedResponse early =
        scene.send("POST", pathOf(waiting, "/command"), R"({"command":"status"})");
    EXPECT_EQ(409, early.status);
    EXPECT_EQ("The collection does not run.", detailOf(early));
    (void)scene.send("POST", pathOf(waiting, "/cancel"));

    EXPECT_EQ(409, scene.send("POST", pathOf(done(), "/command"), R"({"command":"stop"})").status);
}

TEST_F(CollectionRoutesTest, StartThatNobodyConfirmedIsSentAgain) {
    const Collection collection = scene.addCollection(agent);
    EXPECT_EQ(409, scene.send("POST", pathOf(collection, "/send-again")).status);
    const OperationId first = scene.store.operations().take(agent.id, 16).at(0).id;
    EXPECT_THAT(scene.get(pathOf(collection)).body, HasSubstr(R"("notConfirmed":false)"));
    scene.clock.advance(std::chrono::seconds(31));
    EXPECT_THAT(scene.get(pathOf(collection)).body, HasSubstr(R"("notConfirmed":true)"));

    const ReceivedResponse again = scene.send("POST", pathOf(collection, "/send-again"));

    EXPECT_EQ(202, again.status);
    EXPECT_THAT(again.body, HasSubstr(R"("notConfirmed":false)"));
    EXPECT_NE(first, scene.store.operations().take(agent.id, 16).at(0).id);
    EXPECT_EQ(409, scene.send("POST", pathOf(run(), "/send-again")).status);
}

TEST_F(CollectionRoutesTest, CollectionThatHasEndedIsRemovedWithAllOfIt) {
    const Collection collection = run();
    EXPECT_EQ("A collection that has not ended cannot be removed; cancel it first.",
              detailOf(scene.send("DELETE", pathOf(collection))));
    scene.say(collection, OutputChannel::Stdout, "text");
    scene.upload(collection, "data.0/a", "content");
    scene.end(collection, 0);

    const ReceivedResponse removed = scene.send("DELETE", pathOf(collection));

    EXPECT_EQ(204, removed.status);
    EXPECT_EQ("", removed.body);
    EXPECT_EQ(404, scene.get(pathOf(collection)).status);
    EXPECT_FALSE(std::filesystem::exists(scene.uploads.path(collection.id, "data.0/a")));
    EXPECT_FALSE(
        std::filesystem::exists(scene.outputs.path(collection.start, OutputChannel::Stdout)));
    EXPECT_EQ("engineer collection.remove " + collection.id.text + " ()", scene.audit().back());
    EXPECT_EQ(404, scene.send("DELETE", pathOf(collection)).status);
}

TEST_F(CollectionRoutesTest, CollectionThatIsNotThereIsAProblemEverywhere) {
    for (const char* id : {"nothing", "..", "%2e%2e%2f%2e%2e", "a%20b", "%27;--", "a%0d%0aX:1"}) {
        const std::string path = std::string(kCollections) + '/' + id;
        for (const char* rest :
             {"", "/files", "/files/a", "/output/stdout", "/output/nowhere", "/events"}) {
            EXPECT_EQ(404, scene.get(path + rest).status) << path << rest;
        }
        for (const char* rest : {"/stop", "/cancel", "/send-again"}) {
            EXPECT_EQ(404, scene.send("POST", path + rest).status) << path << rest;
        }
        EXPECT_EQ(404, scene.send("POST", path + "/command", R"({"command":"stop"})").status) << id;
        EXPECT_EQ(404, scene.send("PATCH", path, R"({"name":"a"})").status) << id;
        EXPECT_EQ(404, scene.send("DELETE", path).status) << id;
    }
    EXPECT_EQ("There is no collection with this id.",
              detailOf(scene.get(std::string(kCollections) + "/nothing")));
}

// ---- What it has left

TEST_F(CollectionRoutesTest, OutputIsShownSoFar) {
    const Collection collection = run();
    EXPECT_EQ("", scene.get(pathOf(collection, "/output/stdout")).body);
    scene.say(collection, OutputChannel::Stdout, "one\xFF\n");
    scene.say(collection, OutputChannel::Stderr, "oh");
    scene.say(collection, OutputChannel::Feedback, "<a/>");

    const ReceivedResponse response = scene.get(pathOf(collection, "/output/stdout"));

    EXPECT_EQ("one\xFF\n", response.body);
    EXPECT_EQ("application/octet-stream", response.fields.at("content-type"));
    EXPECT_EQ("oh", scene.get(pathOf(collection, "/output/stderr")).body);
    EXPECT_EQ("<a/>", scene.get(pathOf(collection, "/output/feedback")).body);
    EXPECT_EQ("The channels are stdout, stderr and feedback.",
              detailOf(scene.get(pathOf(collection, "/output/all"))));
}

TEST_F(CollectionRoutesTest, FilesAreListedAndSent) {
    const Collection collection = run();
    EXPECT_EQ(R"({"items":[]})", scene.get(pathOf(collection, "/files")).body);
    scene.upload(collection, "data.0/<a> b.txt", "<html>");
    (void)scene.store.collections().beginFile(collection.id, "data.0/half");

    EXPECT_EQ(R"({"items":[{"name":"data.0/<a> b.txt","size":6,"complete":true,)"
              R"("changed":"2026-01-02T03:04:05.006Z"},{"name":"data.0/half","size":0,)"
              R"("complete":false,"changed":"2026-01-02T03:04:05.006Z"}]})",
              scene.get(pathOf(collection, "/files")).body);
    const ReceivedResponse file = scene.get(pathOf(collection, "/files/data.0%2F%3Ca%3E%20b.txt"));
    EXPECT_EQ("<html>", file.body);
    EXPECT_EQ("application/octet-stream", file.fields.at("content-type"));
    EXPECT_EQ("nosniff", file.fields.at("x-content-type-options"));
}

TEST_F(CollectionRoutesTest, OnlyFilesOfTheCollectionAreSent) {
    const Collection collection = run();
    const Collection other = scene.addCollection(scene.addAgent("web-1"));
    scene.upload(collection, "data.0/a", "content");
    (void)scene.store.collections().beginFile(collection.id, "data.0/half");

    for (const std::string& name :
         {std::string("data.0%2Fhalf"), std::string("data.0"), std::string("data.0%2F"),
          std::string("%2Fetc%2Fpasswd"), std::string("..%2F..%2Fkolvan.sqlite"),
          std::string("data.0%2F..%2F..%2F..%2Fkolvan.sqlite"), std::string("data.0%2F.%2Fa"),
          std::string("data.0%5Ca"), std::string("DATA.0%2Fa")}) {
        const ReceivedResponse response = scene.get(pathOf(collection, "/files/" + name));
        EXPECT_EQ(404, response.status) << name;
        EXPECT_EQ("The collection has no whole file of this name.", detailOf(response)) << name;
    }
    EXPECT_EQ(404, scene.get(pathOf(other, "/files/data.0%2Fa")).status);
    EXPECT_EQ(404, scene.get(pathOf(collection, "/files/data.0/a")).status);
}

TEST_F(CollectionRoutesTest, ProfileIsTold) {
    const Collection collection = run();
    EXPECT_THAT(scene.get(pathOf(collection)).body, HasSubstr(R"("hasProfile":false)"));

    scene.upload(collection, "data.0/profile.pb.gz", "content");

    EXPECT_THAT(scene.get(pathOf(collection)).body, HasSubstr(R"("hasProfile":true)"));
}

TEST_F(CollectionRoutesTest, EndIsShown) {
    const Collection failed = run();
    scene.clock.advance(std::chrono::seconds(2));
    (void)scene.store.operations().finish(agent.id, failed.start, {}, "no \xFF memory",
                                          CollectionState::Failed);

    EXPECT_THAT(scene.get(pathOf(failed)).body,
                HasSubstr("\"state\":\"failed\",\"notConfirmed\":false,\"exitCode\":null,"
                          "\"error\":\"no \xEF\xBF\xBD memory\""));
    EXPECT_THAT(scene.get(pathOf(failed)).body,
                HasSubstr(R"("started":"2026-01-02T03:04:05.006Z",)"
                          R"("ended":"2026-01-02T03:04:07.006Z"})"));
    const Collection good = done();
    EXPECT_THAT(scene.get(pathOf(good)).body,
                HasSubstr(R"("state":"done","notConfirmed":false,"exitCode":0,"error":null)"));
}

}  // namespace
}  // namespace kolvan::test
