#include "tests/companions/client/ContractServer.h"
#include "tests/companions/client/KolvanRun.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace kolvan::client::test {
namespace {

using kolvan::test::headerOf;
using kolvan::test::httpReply;
using kolvan::test::RawConnection;
using kolvan::test::RefusingPort;
using kolvan::test::TemporaryDirectory;
using Words = std::vector<std::string>;

constexpr char kAgent[] = "0f4c1f6a-6d1e-4a38-9d0e-6f2f3b0f9a51";

class ClientCommandsTest : public testing::Test {
protected:
    Outcome run(const ContractServer& server, const Words& arguments) const {
        return runAt(server.endpoint(), arguments);
    }

    Outcome runAt(const std::string& endpoint, const Words& arguments) const {
        return KolvanRun(home, arguments,
                         {{"KOLVAN_SERVER", endpoint}, {"KOLVAN_TOKEN", "kst_secret"}})
            .outcome();
    }

    /// What the rule makes of one operation: a reply that stands in for the example.
    static ContractServer::Rule reply(const std::string& operation, const std::string& bytes) {
        return
            [=](const std::string& asked, std::size_t, const std::string&,
                RawConnection& connection) { return asked == operation && connection.send(bytes); };
    }

    const TemporaryDirectory home;
};

TEST_F(ClientCommandsTest, AgentsAreATable) {
    const ContractServer server;

    const Outcome outcome = run(server, {"agents"});

    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ(
        "NAME     HOST                 PRESENCE   LAST SEEN                 ID\n"
        "build-7  build-7.example.com  connected  2026-11-22T06:00:00.000Z  "
        "0f4c1f6a-6d1e-4a38-9d0e-6f2f3b0f9a51\n"
        "db-1     db-1.example.com     lost       2026-11-22T06:00:00.000Z  "
        "5f7f6c5e-1c3c-4f57-8b5c-3f2f0e8e0b11\n",
        outcome.output);
    EXPECT_EQ("", outcome.errors);
    EXPECT_EQ(Words{}, server.complaints());
    EXPECT_EQ("Bearer kst_secret", headerOf(server.rawRequests().front(), "Authorization"));
}

TEST_F(ClientCommandsTest, PagesAreFollowed) {
    const ContractServer server(
        [](const std::string&, std::size_t number, const std::string&, RawConnection& connection) {
            return connection.send(ContractServer::json(
                R"({"items":[{"id":")" + std::to_string(number) + R"("}],"next":)" +
                (number < 3 ? R"("after )" + std::to_string(number) + "\"}" : "null}")));
        });

    const Outcome outcome = run(server, {"agents", "--json"});

    rapidjson::Document agents;
    agents.Parse(outcome.output.c_str());
    ASSERT_TRUE(agents.IsArray()) << outcome.output;
    EXPECT_EQ(3U, agents.Size());
    EXPECT_EQ(
        (Words{"GET /api/v1/agents?limit=500", "GET /api/v1/agents?limit=500&cursor=after%201",
               "GET /api/v1/agents?limit=500&cursor=after%202"}),
        server.requests());
}

TEST_F(ClientCommandsTest, ProcessesAreAskedForUntilTheyAreThere) {
    const ContractServer server;

    const Outcome outcome = run(server, {"processes", "build-7.example.com"});

    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ(
        " PID  USER     CPU  THREADS  PROFILABLE                       COMMAND\n"
        "4711  app   97.5 %       12  yes                              /opt/app/app --serve\n"
        "   1  root   0.0 %        1  no: It belongs to another user.  /sbin/init\n",
        outcome.output);
    EXPECT_EQ((Words{"GET /api/v1/agents?limit=500",
                     std::string("POST /api/v1/agents/") + kAgent + "/processes",
                     std::string("GET /api/v1/agents/") + kAgent + "/processes"}),
              server.requests());
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(ClientCommandsTest, AgentThatIsNotThereIsAnError) {
    const ContractServer server;

    const Outcome outcome = run(server, {"processes", "nobody\x1B"});

    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ(
        "kolvan: There is no agent 'nobody?'; \"kolvan agents\" lists those that there are.\n",
        outcome.errors);
}

TEST_F(ClientCommandsTest, NameOfSeveralAgentsIsAnError) {
    const ContractServer server(
        reply("listAgents", ContractServer::json(R"({"items":[{"id":"1","host":"twin"},)"
                                                 R"({"id":"2","host":"twin"}],"next":null})")));

    EXPECT_EQ(
        "kolvan: There are 2 agents 'twin'; give the id of one, as \"kolvan agents\" shows it.\n",
        run(server, {"processes", "twin"}).errors);
}

TEST_F(ClientCommandsTest, CollectionsAreFilteredByTheServer) {
    const ContractServer server;

    const Outcome outcome =
        run(server, {"collections", "--agent", "build-7", "--state", "done", "-n", "7"});

    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ(
        "MADE                      AGENT    TARGET               PROFILE  STATE   NAME             "
        "  "
        "ID\n"
        "2026-11-22T06:00:00.000Z  build-7  process 4711         cpu      done    -                "
        "  "
        "7b1f0a52-0c60-4f0a-8a6e-2d1b6f1f8c33\n"
        "2026-11-21T06:00:00.000Z  build-7  /opt/app/app --once  cpu      failed  before the "
        "change  "
        "c2d8f3b0-55b1-4c0e-9a57-0a5d5b1d9e10\n",
        outcome.output);
    EXPECT_EQ(std::string("GET /api/v1/collections?agent=") + kAgent + "&state=done&limit=7",
              server.requests().back());
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(ClientCommandsTest, ShowTellsAllOfACollection) {
    const ContractServer server;

    const Outcome outcome = run(server, {"show", "a/b"});

    EXPECT_EQ(
        "Id:         7b1f0a52-0c60-4f0a-8a6e-2d1b6f1f8c33\n"
        "Agent:      build-7\n"
        "Target:     process 4711\n"
        "Profile:    cpu, 999 looks a second, 10.0 s\n"
        "State:      done\n"
        "Made:       2026-11-22T06:00:00.000Z by ada\n"
        "Started:    2026-11-22T06:00:00.200Z\n"
        "Ended:      2026-11-22T06:00:10.500Z\n",
        outcome.output);
    EXPECT_EQ(Words{"GET /api/v1/collections/a%2Fb"}, server.requests());
}

TEST_F(ClientCommandsTest, TopTakesAFilter) {
    const ContractServer server;

    const Outcome outcome = run(server, {"top", "c", "--thread", "7", "--from", "100", "--to",
                                         "300", "--sample-type", "cpu", "-n", "2"});

    EXPECT_EQ(
        "Total: 9.800 s of cpu\n"
        "   SELF            TOTAL          FUNCTION  MODULE\n"
        "7.200 s  73.5 %  7.200 s  73.5 %  hash      app\n"
        "2.600 s  26.5 %  2.600 s  26.5 %  fib       app\n",
        outcome.output);
    EXPECT_EQ(Words{"GET /api/v1/collections/c/"
                    "top.json?thread=7&from=100&to=300&sampleType=cpu&count=2"},
              server.requests());
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(ClientCommandsTest, CompareShowsWhatHasGrown) {
    const ContractServer server;

    const Outcome outcome = run(server, {"compare", "before", "after"});

    EXPECT_EQ(
        "Total: 0.000 s and 0.000 s of cpu; shares are those of the functions themselves\n"
        " CHANGE    BASE   OTHER  FUNCTION  MODULE\n"
        "+25.0 %  50.0 %  75.0 %  hash      app\n"
        "-25.0 %  50.0 %  25.0 %  main      app\n",
        outcome.output);
    EXPECT_EQ(Words{"GET /api/v1/compare?base=before&other=after"}, server.requests());
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(ClientCommandsTest, GetWritesTheFile) {
    const std::string bytes("\x1F\x8B\0\n", 4);
    const ContractServer server(reply("showProfile", httpReply(200, bytes)));
    const std::string path = home.entry("profile.pb.gz");

    EXPECT_EQ(0, run(server, {"get", "c", "-o", path}).code);
    EXPECT_EQ(bytes, kolvan::test::readFile(path));
    EXPECT_EQ(bytes, run(server, {"get", "c"}).output);
}

TEST_F(ClientCommandsTest, GetAsksForAFormat) {
    const ContractServer server;

    EXPECT_EQ("main;hash 900\n", run(server, {"get", "c", "--format", "collapsed"}).output);
    (void)run(server, {"get", "c", "--format", "speedscope", "--thread", "7"});
    (void)run(server, {"get", "c", "--format", "flamegraph"});

    EXPECT_EQ((Words{"GET /api/v1/collections/c/profile.collapsed.txt",
                     "GET /api/v1/collections/c/profile.speedscope.json?thread=7",
                     "GET /api/v1/collections/c/flamegraph.json"}),
              server.requests());
    EXPECT_EQ(Words{}, server.complaints());
}

TEST_F(ClientCommandsTest, TransferThatBreaksLeavesNoFile) {
    const kolvan::test::RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
    });
    (void)home.write("files/profile.pb.gz", "before");

    const Outcome outcome =
        runAt(server.endpoint(), {"get", "c", "-o", home.entry("files/profile.pb.gz")});

    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("before", kolvan::test::readFile(home.path() / "files/profile.pb.gz"));
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(home.path() / "files"), {}));
}

TEST_F(ClientCommandsTest, CancelTellsTheNewState) {
    const ContractServer server;

    const Outcome outcome = run(server, {"cancel", "c"});

    EXPECT_NE(std::string::npos, outcome.output.find("State:      stopping\n"));
    EXPECT_EQ(Words{"POST /api/v1/collections/c/cancel"}, server.requests());
}

TEST_F(ClientCommandsTest, JsonIsWhatTheServerSays) {
    const ContractServer server;

    for (const Words& words : std::vector<Words>{{"show", "c"},
                                                 {"top", "c"},
                                                 {"compare", "a", "b"},
                                                 {"cancel", "c"},
                                                 {"collections"}}) {
        Words arguments = words;
        arguments.emplace_back("--json");
        rapidjson::Document document;

        document.Parse(run(server, arguments).output.c_str());

        EXPECT_FALSE(document.HasParseError()) << words.front();
    }
}

TEST_F(ClientCommandsTest, NamesDoNotActOnTheTerminal) {
    const ContractServer server(reply(
        "showTop", ContractServer::json(R"({"sampleType":"cpu","unit":"count","total":1,)"
                                        R"("functions":[{"name":"a\u001b[2Jb\u009b","module":"m",)"
                                        R"("self":1,"total":1}],"threads":[]})")));

    EXPECT_NE(std::string::npos, run(server, {"top", "c"}).output.find("a?[2Jb?"));
    const std::string json = run(server, {"top", "c", "--json"}).output;
    EXPECT_NE(std::string::npos, json.find(R"(a\u001B[2Jb\u009B)")) << json;
}

TEST_F(ClientCommandsTest, ProblemIsTheServersSentence) {
    const ContractServer server(
        reply("showCollection", ContractServer::problem(404, "There is no such collection.")));

    const Outcome outcome = run(server, {"show", "c"});

    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("", outcome.output);
    EXPECT_EQ("kolvan: There is no such collection.\n", outcome.errors);
}

TEST_F(ClientCommandsTest, AnswerOfSomethingElseIsAnError) {
    const ContractServer page(reply("showCollection", httpReply(502, "<html>")));
    const ContractServer text(reply("showCollection", httpReply(200, "hello")));
    const ContractServer list(reply("listAgents", ContractServer::json("[]")));

    EXPECT_EQ("kolvan: The server has answered with status 502. Is it a kolvan-server?\n",
              run(page, {"show", "c"}).errors);
    EXPECT_EQ("kolvan: The server's answer makes no sense: it is no JSON.\n",
              run(text, {"show", "c"}).errors);
    EXPECT_EQ("kolvan: The server's answer makes no sense: 'items' is missing.\n",
              run(list, {"agents"}).errors);
}

TEST_F(ClientCommandsTest, ServerThatIsNotThereIsAnError) {
    const RefusingPort port;

    const Outcome outcome = runAt("http://" + port.host(), {"agents"});

    EXPECT_EQ(1, outcome.code);
    EXPECT_TRUE(outcome.errors.starts_with("kolvan: The server http://" + port.host() +
                                           " cannot be reached: "))
        << outcome.errors;
}

TEST_F(ClientCommandsTest, RedirectionIsNotFollowedWithTheToken) {
    const ContractServer elsewhere;
    const ContractServer server(reply(
        "showCollection",
        httpReply(302, "", "Location: " + elsewhere.endpoint() + "/api/v1/collections/c\r\n")));

    EXPECT_EQ(1, run(server, {"show", "c"}).code);
    EXPECT_EQ(Words{}, elsewhere.requests());
}

TEST_F(ClientCommandsTest, WrongUsageIsExitCodeTwo) {
    const ContractServer server;

    for (const Words& words :
         std::vector<Words>{{},
                            {"frobnicate"},
                            {"show"},
                            {"top", "c", "--from", "-1"},
                            {"collections", "--state", "tired"},
                            {"profile", "build-7"},
                            {"profile", "build-7", "--pid", "1", "--command", "a"},
                            {"profile", "build-7", "--command"},
                            {"agent-token"},
                            {"agent-token", "add"},
                            {"agents", "--command", "a"}}) {
        const Outcome outcome = run(server, words);

        EXPECT_EQ(2, outcome.code) << outcome.output;
        EXPECT_TRUE(outcome.errors.ends_with("\nTry --help.\n")) << outcome.errors;
    }
    EXPECT_EQ(Words{}, server.requests());
}

TEST_F(ClientCommandsTest, HelpNeedsNoServer) {
    KolvanRun kolvan(home, {"--help"});

    EXPECT_EQ(0, kolvan.wait());
    EXPECT_TRUE(kolvan.output().starts_with("The command line of kolvan-server"));
}

}  // namespace
}  // namespace kolvan::client::test
