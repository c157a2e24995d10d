#include "tests/companions/client/ContractServer.h"
#include "tests/companions/client/KolvanRun.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <future>
#include <string>
#include <vector>

#include <signal.h>

namespace kolvan::client::test {
namespace {

using kolvan::test::headerOf;
using kolvan::test::httpReply;
using kolvan::test::RawConnection;
using kolvan::test::TemporaryDirectory;
using Words = std::vector<std::string>;

constexpr char kAgent[] = "0f4c1f6a-6d1e-4a38-9d0e-6f2f3b0f9a51";
constexpr char kCollection[] = "7b1f0a52-0c60-4f0a-8a6e-2d1b6f1f8c33";
constexpr char kEventsHead[] =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n";

std::string stateEvent(const std::string& state, const std::string& more = "") {
    return std::string(R"(event: state
data: {"id":")") +
           kCollection + R"(","state":")" + state + "\"" + more + "}\n\n";
}

class ProfileCommandTest : public testing::Test {
protected:
    KolvanRun::Environment at(const ContractServer& server) const {
        return {{"KOLVAN_SERVER", server.endpoint()}, {"KOLVAN_TOKEN", "kst_secret"}};
    }

    const TemporaryDirectory home;
};

TEST_F(ProfileCommandTest, ShowsProgressAndThenTheTopFunctions) {
    const ContractServer server;

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "4711", "--duration", "10", "-n", "2"},
                     at(server));

    EXPECT_EQ(0, kolvan.wait());
    EXPECT_EQ(std::string("Collection ") + kCollection +
                  "\nwaiting\nrunning\nrunning, 5 s, hottest: hash\ndone\n",
              kolvan.errors());
    EXPECT_EQ(
        "Total: 9.800 s of cpu\n"
        "   SELF            TOTAL          FUNCTION  MODULE\n"
        "7.200 s  73.5 %  7.200 s  73.5 %  hash      app\n"
        "2.600 s  26.5 %  2.600 s  26.5 %  fib       app\n",
        kolvan.output());
    EXPECT_EQ(Words{}, server.complaints());
    const std::string path = std::string("/api/v1/collections/") + kCollection;
    const Words requests = server.requests();
    ASSERT_EQ(4U, requests.size());
    EXPECT_EQ("GET " + path + "/events", requests[2]);
    EXPECT_EQ("GET " + path + "/top.json?count=2", requests[3]);
    rapidjson::Document body;
    body.Parse(requests[1].substr(requests[1].find('{')).c_str());
    EXPECT_STREQ(kAgent, body["agent"].GetString());
    EXPECT_EQ(4711, body["target"]["pid"].GetInt());
    EXPECT_EQ(10, body["durationSeconds"].GetDouble());
    EXPECT_STREQ("cpu", body["profile"].GetString());
    EXPECT_TRUE(body["children"].GetBool());
}

TEST_F(ProfileCommandTest, CommandTakesEverythingBehindIt) {
    const ContractServer server;

    KolvanRun kolvan(home,
                     {"profile", "build-7", "--no-children", "--profile", "wait", "--frequency",
                      "50", "--name", "n", "--command", "sleep", "--help", "-o", ""},
                     at(server));

    EXPECT_EQ(0, kolvan.wait());
    const std::string request = server.requests().at(1);
    rapidjson::Document body;
    body.Parse(request.substr(request.find('{')).c_str());
    const auto& command = body["target"]["command"];
    ASSERT_EQ(4U, command.Size());
    EXPECT_STREQ("--help", command[1].GetString());
    EXPECT_STREQ("", command[3].GetString());
    EXPECT_FALSE(body["children"].GetBool());
    EXPECT_STREQ("wait", body["profile"].GetString());
    EXPECT_EQ(50, body["frequency"].GetInt());
    EXPECT_FALSE(body.HasMember("durationSeconds"));
}

TEST_F(ProfileCommandTest, ProfileIsKeptInAFile) {
    const ContractServer server([](const std::string& operation, std::size_t, const std::string&,
                                   RawConnection& connection) {
        return operation == "showProfile" && connection.send(httpReply(200, "bytes"));
    });
    const std::string path = home.entry("profile.pb.gz");

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1", "--json", "-o", path}, at(server));

    EXPECT_EQ(0, kolvan.wait());
    EXPECT_EQ("bytes", kolvan::test::readFile(path));
    rapidjson::Document result;
    result.Parse(kolvan.output().c_str());
    EXPECT_STREQ("done", result["collection"]["state"].GetString());
    EXPECT_STREQ("hash", result["top"]["functions"][0]["name"].GetString());
}

TEST_F(ProfileCommandTest, FailedCollectionIsAnError) {
    const ContractServer server([](const std::string& operation, std::size_t, const std::string&,
                                   RawConnection& connection) {
        return operation == "followCollection" &&
               connection.send(
                   httpReply(200, stateEvent("failed", R"(,"error":"No such process.\u001b")")));
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_TRUE(kolvan.errors().ends_with("kolvan: The collection has failed: No such process.?\n"))
        << kolvan.errors();
    EXPECT_EQ("", kolvan.output());
}

TEST_F(ProfileCommandTest, StreamThatBreaksIsTakenUpAgain) {
    const ContractServer server([](const std::string& operation, std::size_t number,
                                   const std::string&, RawConnection& connection) {
        if (operation == "showCollection") {
            return connection.send(ContractServer::json(R"({"state":"running"})"));
        }
        return operation == "followCollection" && number == 1 &&
               connection.send(httpReply(200, "id: 41\n" + stateEvent("running")));
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));

    EXPECT_EQ(0, kolvan.wait());
    std::vector<std::string> lastIds;
    for (const std::string& request : server.rawRequests()) {
        if (request.find("/events") != std::string::npos) {
            lastIds.push_back(headerOf(request, "Last-Event-ID"));
        }
    }
    EXPECT_EQ((Words{"", "41"}), lastIds);
}

TEST_F(ProfileCommandTest, TokenThatIsRevokedMeanwhileEndsTheFollowingAtOnce) {
    const ContractServer server([](const std::string& operation, std::size_t number,
                                   const std::string&, RawConnection& connection) {
        if (operation == "followCollection" && number == 1) {
            return connection.send(httpReply(200, stateEvent("running")));
        }
        return (operation == "followCollection" || operation == "showCollection") &&
               connection.send(ContractServer::problem(401, "This needs a token."));
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_TRUE(kolvan.errors().ends_with(
        std::string("\nkolvan: The server does not take the token any more. Collection ") +
        kCollection + " goes on; with another token, \"kolvan show " + kCollection +
        "\" tells what became of it.\n"))
        << kolvan.errors();
    EXPECT_EQ("GET /api/v1/collections/" + std::string(kCollection), server.requests().back());
}

TEST_F(ProfileCommandTest, CollectionThatIsRemovedMeanwhileEndsTheFollowingAtOnce) {
    const ContractServer server([](const std::string& operation, std::size_t, const std::string&,
                                   RawConnection& connection) {
        return operation == "followCollection" &&
               connection.send(ContractServer::problem(404, "There is no such collection."));
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_TRUE(kolvan.errors().ends_with(std::string("\nkolvan: Collection ") + kCollection +
                                          " was removed.\n"))
        << kolvan.errors();
}

TEST_F(ProfileCommandTest, ServerThatIsBusyIsAskedAgain) {
    const ContractServer server([](const std::string& operation, std::size_t number,
                                   const std::string&, RawConnection& connection) {
        return operation == "followCollection" && number == 1 &&
               connection.send(ContractServer::problem(503, "Come again."));
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));

    EXPECT_EQ(0, kolvan.wait()) << kolvan.errors();
    EXPECT_NE(std::string::npos, kolvan.errors().find("\nCome again.\n"));
}

TEST_F(ProfileCommandTest, CtrlCCancelsTheCollection) {
    std::promise<void> following;
    std::promise<void> cancelled;
    auto wasCancelled = cancelled.get_future().share();
    const ContractServer server([&](const std::string& operation, std::size_t, const std::string&,
                                    RawConnection& connection) {
        if (operation == "followCollection") {
            (void)connection.send(kEventsHead + stateEvent("running"));
            following.set_value();
            wasCancelled.wait();
            (void)connection.send(stateEvent("stopping") +
                                  stateEvent("cancelled", R"(,"hasProfile":true)"));
            return connection.send("");
        }
        if (operation == "cancelCollection") {
            cancelled.set_value();
        }
        return false;
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));
    following.get_future().wait();
    kolvan.signal(SIGINT);

    EXPECT_EQ(1, kolvan.wait());
    // Whether "running" is read before the interrupt is up to the scheduler.
    EXPECT_NE(std::string::npos,
              kolvan.errors().find("\nCancelling the collection; Ctrl-C again leaves it alone.\n"))
        << kolvan.errors();
    EXPECT_TRUE(
        kolvan.errors().ends_with("\nstopping\ncancelled\nkolvan: The collection was cancelled.\n"))
        << kolvan.errors();
    EXPECT_TRUE(kolvan.output().starts_with("Total: ")) << "its results are whole";
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(ProfileCommandTest, SecondCtrlCLeaves) {
    std::promise<void> following;
    std::promise<void> cancelled;
    const ContractServer server([&](const std::string& operation, std::size_t, const std::string&,
                                    RawConnection& connection) {
        if (operation == "followCollection") {
            (void)connection.send(kEventsHead + stateEvent("running"));
            following.set_value();
            connection.waitForPeerEnd();
            return true;
        }
        if (operation == "cancelCollection") {
            cancelled.set_value();
        }
        return false;
    });

    KolvanRun kolvan(home, {"profile", "build-7", "--pid", "1"}, at(server));
    following.get_future().wait();
    kolvan.signal(SIGINT);
    cancelled.get_future().wait();
    kolvan.signal(SIGINT);

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_TRUE(kolvan.errors().ends_with(
        std::string("kolvan: The server goes on cancelling the collection; \"kolvan show ") +
        kCollection + "\" tells what became of it.\n"))
        << kolvan.errors();
}

}  // namespace
}  // namespace kolvan::client::test
