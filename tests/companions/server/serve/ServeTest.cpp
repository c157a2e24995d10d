// The server as somebody starts it, with real agents and through its API.

#include "tests/companions/server/cli/ServerProgram.h"
#include "tests/companions/server/serve/ServedAgent.h"
#include "tests/companions/server/serve/ServerPlace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace kolvan::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

class ServeTest : public ServerPlaceTest {};

TEST_F(ServeTest, SaysWhereItServesWhereTheDataAreAndHowToBegin) {
    RunningServer server(start());
    const std::string port = std::to_string(server.port());
    const std::string data = start().data.string();

    // The whole of it comes in one piece.
    EXPECT_THAT(
        server.output(),
        MatchesRegex("Serving on http://127.0.0.1:" + port + "\nData are kept in " + data +
                     "\n\nNobody has an account yet. This link makes the first one, an "
                     "administrator's; it works once,\nfor a day:\n  http://127.0.0.1:" +
                     port +
                     "/first-login#[A-Za-z0-9_-]{43}\nOn this machine the same is done by\n"
                     "  kolvan-server --data '" +
                     data + "' user add NAME --role administrator\n  kolvan-server --data '" +
                     data + "' token add NAME\n"));
    EXPECT_EQ("", server.errors());
}

TEST_F(ServeTest, SaysNothingOfTheFirstLoginWhereSomebodyHasAnAccount) {
    ASSERT_EQ(0, runServer({"user", "add", "ada", "--role", "administrator", "--data",
                            start().data.string()},
                           "correct horse battery\n")
                     .exitCode);

    RunningServer server(start());
    const std::string port = std::to_string(server.port());

    EXPECT_EQ("Serving on http://127.0.0.1:" + port + "\nData are kept in " +
                  start().data.string() + "\n",
              server.output());
}

TEST_F(ServeTest, EndsOnRequest) {
    for (const int number : {SIGTERM, SIGINT}) {
        RunningServer server(start());
        (void)server.port();

        server.sendSignal(number);

        EXPECT_EQ("exited with 0", server.waitForEnd());
        EXPECT_EQ("Stopping\n", server.errors());
    }
}

TEST_F(ServeTest, CollectionOfARealAgentRunsToItsProfile) {
    RunningServer server(start());
    addRealPackages(server, KOLVAN_TRCAP_PATH);
    ServedAgent agent(server, "build-7");
    const ApiClient api = clientOf(server);

    const std::string collection =
        api.collect(api.agent("build-7"),
                    {"/bin/sh", "-c", "i=0; while [ $i -lt 200000 ]; do i=$((i+1)); done"});

    EXPECT_EQ("done", api.waitForState(collection, "done")) << server.errors();
    const ReceivedResponse files = api.get("/api/v1/collections/" + collection + "/files");
    EXPECT_THAT(files.body, HasSubstr("\"data.0/profile.pb.gz\""));
    const ReceivedResponse profile =
        api.get("/api/v1/collections/" + collection + "/files/data.0%2Fprofile.pb.gz");
    EXPECT_EQ(200, profile.status);
    EXPECT_EQ("\x1f\x8b", profile.body.substr(0, 2));  // how every file of gzip begins
}

}  // namespace
}  // namespace kolvan::test
