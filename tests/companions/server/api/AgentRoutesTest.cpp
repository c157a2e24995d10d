#include "companions/server/api/AgentRoutes.h"

#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <set>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;

using testing::ElementsAre;
using testing::HasSubstr;

rapidjson::Document parsed(const ReceivedResponse& response) {
    rapidjson::Document document;
    document.Parse(response.body.c_str());
    return document;
}

std::string detailOf(const ReceivedResponse& response) {
    return parsed(response)["detail"].GetString();
}

class AgentRoutesTest : public testing::Test {
protected:
    /// Names on a page of agents.
    std::vector<std::string> names(const std::string& query) {
        const ReceivedResponse response = scene.get("/api/v1/agents" + query);
        EXPECT_EQ(200, response.status) << response.body;
        const rapidjson::Document page = parsed(response);
        std::vector<std::string> found;
        for (const auto& item : page["items"].GetArray()) {
            found.emplace_back(item["name"].GetString());
        }
        return found;
    }

    std::string processes(const Agent& agent) {
        return "/api/v1/agents/" + agent.id.text + "/processes";
    }

    /// Asks for the agent's processes, and lets it take the question.
    OperationId ask(const Agent& agent) {
        const ReceivedResponse asked = scene.send("POST", processes(agent));
        EXPECT_EQ(202, asked.status) << asked.body;
        EXPECT_STREQ("waiting", parsed(asked)["state"].GetString());
        const std::vector<Operation> taken = scene.store.operations().take(agent.id, 16);
        EXPECT_EQ(1U, taken.size());
        return taken.front().id;
    }

    /// The agent answers.
    void answer(const Agent& agent, const OperationId& operation, int exitCode,
                const std::string& output, OutputChannel channel = OutputChannel::Stdout) {
        if (!output.empty()) {
            (void)scene.outputs.append(operation, channel, output);
        }
        EXPECT_TRUE(scene.store.operations().finish(agent.id, operation, exitCode, "",
                                                    CollectionState::Done));
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(AgentRoutesTest, AgentIsShown) {
    const Agent agent = scene.addAgent("build-7");
    scene.store.agents().setCollectorVersion(agent.id, "1.0 build 5");

    const ReceivedResponse one = scene.get("/api/v1/agents/" + agent.id.text);

    const std::string expected =
        R"({"id":")" + agent.id.text +
        R"(","name":"build-7","host":"build-7.example","presence":"connected",)"
        R"("address":"192.0.2.10","collectorVersion":"1.0 build 5",)"
        R"("firstSeen":"2026-01-02T03:04:05.006Z","lastSeen":"2026-01-02T03:04:05.006Z"})";
    EXPECT_EQ(200, one.status);
    EXPECT_EQ("application/json", one.fields.at("content-type"));
    EXPECT_EQ(expected, one.body);
    EXPECT_EQ(R"({"items":[)" + expected + R"(],"next":null})", scene.get("/api/v1/agents").body);
}

TEST_F(AgentRoutesTest, VersionIsNullUntilItIsKnown) {
    const Agent agent = scene.addAgent("build-7");

    EXPECT_THAT(scene.get("/api/v1/agents/" + agent.id.text).body,
                HasSubstr(R"("collectorVersion":null)"));
}

TEST_F(AgentRoutesTest, ListIsFilteredByPresenceAndText) {
    (void)scene.addAgent("Build-7");
    const Agent gone = scene.addAgent("web-1");
    scene.store.agents().leave(gone.id, gone.uuid);

    EXPECT_THAT(names(""), ElementsAre("web-1", "Build-7"));
    EXPECT_THAT(names("?presence=left"), ElementsAre("web-1"));
    EXPECT_THAT(names("?presence=connected&text=b"), ElementsAre("Build-7"));
    EXPECT_THAT(names("?text=bUILD"), ElementsAre("Build-7"));
    EXPECT_THAT(names("?text=1.EXAMPLE"), ElementsAre("web-1"));
    EXPECT_THAT(names("?text=%25"), ElementsAre());
    EXPECT_THAT(names("?text=%27%20OR%201%3D1%20--"), ElementsAre());
}

TEST_F(AgentRoutesTest, FilterThatMakesNoSenseIsAProblem) {
    EXPECT_EQ("\"away\" is no value for \"presence\".",
              detailOf(scene.get("/api/v1/agents?presence=away")));
    EXPECT_EQ(400, scene.get("/api/v1/agents?name=a").status);
    EXPECT_EQ(400, scene.get("/api/v1/agents?limit=0").status);
    EXPECT_EQ(400, scene.get("/api/v1/agents?limit=501").status);
    EXPECT_EQ(400, scene.get("/api/v1/agents?text=%ff%").status);
}

TEST_F(AgentRoutesTest, PagesShowEachAgentOnceWhileOthersCome) {
    std::set<std::string> expected;
    for (int number = 0; number < 25; ++number) {
        expected.insert(scene.addAgent("agent-" + std::to_string(number)).name);
    }

    std::multiset<std::string> shown;
    std::string cursor;
    do {
        const rapidjson::Document page = parsed(
            scene.get("/api/v1/agents?limit=10" + (cursor.empty() ? "" : "&cursor=" + cursor)));
        for (const auto& item : page["items"].GetArray()) {
            shown.insert(item["name"].GetString());
        }
        cursor = page["next"].IsString() ? page["next"].GetString() : "";
        (void)scene.addAgent("late-" + std::to_string(shown.size()));
    } while (!cursor.empty());

    EXPECT_EQ(std::multiset<std::string>(expected.begin(), expected.end()), shown);
    EXPECT_THAT(names("?cursor=none-of-ours"), ElementsAre());
}

TEST_F(AgentRoutesTest, HostileNamesAreText) {
    const AgentToken token = scene.store.agents().addToken("shared", true, sha256("s"));
    const Agent agent = scene.store.agents().connect(
        {token.id, "<b>\"\\\x01\xFF\r\nSet-Cookie: a=b", "uuid", "192.0.2.1"});

    const ReceivedResponse response = scene.get("/api/v1/agents/" + agent.id.text);

    EXPECT_EQ("<b>\"\\\x01\xEF\xBF\xBD\r\nSet-Cookie: a=b",
              std::string(parsed(response)["host"].GetString()));
    EXPECT_EQ(0U, response.fields.count("set-cookie"));
}

TEST_F(AgentRoutesTest, AgentThatIsNotThereIsAProblem) {
    for (const char* id : {"nobody", "..", "%2e%2e%2f", "a%20b", "'%3B--"}) {
        const std::string path = std::string("/api/v1/agents/") + id;
        EXPECT_EQ(404, scene.get(path).status) << id;
        EXPECT_EQ(404, scene.get(path + "/processes").status) << id;
        EXPECT_EQ(404, scene.send("POST", path + "/processes").status) << id;
    }
    EXPECT_EQ("There is no agent with this id.", detailOf(scene.get("/api/v1/agents/nobody")));
}

TEST_F(AgentRoutesTest, ViewerMayNotAsk) {
    const Agent agent = scene.addAgent("build-7");
    ApiRequest request;
    request.method = "POST";
    request.target = processes(agent);

    EXPECT_EQ(403, scene.send(request.with(scene.token(Role::Viewer))).status);
}

TEST_F(AgentRoutesTest, NothingWasAskedAtFirst) {
    const Agent agent = scene.addAgent("build-7");

    EXPECT_EQ(R"({"state":"none","asked":null,"answered":null,"error":null,"processes":[]})",
              scene.get(processes(agent)).body);
}

TEST_F(AgentRoutesTest, ProcessesComeFromTheAgent) {
    const Agent agent = scene.addAgent("build-7");

    const ReceivedResponse asked = scene.send("POST", processes(agent));
    EXPECT_EQ(202, asked.status);
    EXPECT_EQ(R"({"state":"waiting","asked":"2026-01-02T03:04:05.006Z","answered":null,)"
              R"("error":null,"processes":[]})",
              asked.body);
    const std::vector<Operation> taken = scene.store.operations().take(agent.id, 16);
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ("collector:execute", taken.front().messageType);
    EXPECT_EQ(R"({"args":"--list-processes"})", taken.front().parameters);
    scene.clock.advance(std::chrono::seconds(1));
    answer(agent, taken.front().id, 0,
           R"([{"pid":4711,"user":"app","command":"/opt/app --x","cpu":97.5,"threads":12,)"
           R"("profilable":true,"engine":"perf","reason":"","help":"h"}])");

    EXPECT_EQ(R"({"state":"done","asked":"2026-01-02T03:04:05.006Z",)"
              R"("answered":"2026-01-02T03:04:06.006Z","error":null,"processes":[{"pid":4711,)"
              R"("user":"app","command":"/opt/app --x","cpu":97.5,"threads":12,)"
              R"("profilable":true,"reason":"","help":"h"}]})",
              scene.get(processes(agent)).body);
}

TEST_F(AgentRoutesTest, LastAnswerIsShownUntilTheNextOneComes) {
    const Agent agent = scene.addAgent("build-7");
    answer(agent, ask(agent), 0, R"([{"pid":1}])");

    const OperationId second = ask(agent);
    const rapidjson::Document waiting = parsed(scene.get(processes(agent)));
    EXPECT_STREQ("waiting", waiting["state"].GetString());
    EXPECT_EQ(1U, waiting["processes"].Size());
    answer(agent, second, 1, "no permission\n", OutputChannel::Stderr);
    const rapidjson::Document failed = parsed(scene.get(processes(agent)));
    EXPECT_STREQ("failed", failed["state"].GetString());
    EXPECT_STREQ("no permission\n", failed["error"].GetString());
    EXPECT_STREQ("2026-01-02T03:04:05.006Z", failed["answered"].GetString());
    EXPECT_EQ(1U, failed["processes"].Size());
}

TEST_F(AgentRoutesTest, SeveralWhoAskGetOneAnswer) {
    const Agent agent = scene.addAgent("build-7");
    (void)scene.send("POST", processes(agent));
    (void)scene.send("POST", processes(agent));
    (void)ask(agent);

    EXPECT_EQ(202, scene.send("POST", processes(agent)).status);
    EXPECT_TRUE(scene.store.operations().take(agent.id, 16).empty());
}

TEST_F(AgentRoutesTest, WhoHasAskedIsInTheAuditOnceForEachQuestion) {
    const Agent agent = scene.addAgent("build-7");
    (void)scene.send("POST", processes(agent));
    const std::vector<std::string> audit = scene.audit();
    (void)scene.send("POST", processes(agent));

    EXPECT_EQ("engineer agent.processes " + agent.id.text + " (build-7)", audit.back());
    EXPECT_EQ(audit, scene.audit());
}

TEST_F(AgentRoutesTest, QuestionThatWasLostCanBeAskedAgain) {
    const Agent agent = scene.addAgent("build-7");
    const OperationId lost = ask(agent);
    scene.clock.advance(std::chrono::seconds(31));

    EXPECT_NE(lost, ask(agent));
}

TEST_F(AgentRoutesTest, QuestionThatNobodyHasTakenIsNotAskedTwice) {
    const Agent agent = scene.addAgent("build-7");
    (void)scene.send("POST", processes(agent));
    scene.clock.advance(std::chrono::hours(24));
    (void)scene.send("POST", processes(agent));

    EXPECT_EQ(1U, scene.store.operations().take(agent.id, 16).size());
}

TEST_F(AgentRoutesTest, FailureWithoutWordsHasSome) {
    const Agent agent = scene.addAgent("build-7");
    answer(agent, ask(agent), 1, "");

    const rapidjson::Document shown = parsed(scene.get(processes(agent)));

    EXPECT_STREQ("failed", shown["state"].GetString());
    EXPECT_STREQ("The collector could not list them.", shown["error"].GetString());
    EXPECT_TRUE(shown["answered"].IsNull());
}

TEST_F(AgentRoutesTest, AgentThatStartedAnewMeanwhileHasNotAnswered) {
    const Agent agent = scene.addAgent("build-7");
    (void)ask(agent);
    (void)scene.store.agents().connect({agent.token, "host", "uuid-2", "192.0.2.10"});

    const rapidjson::Document shown = parsed(scene.get(processes(agent)));

    EXPECT_STREQ("failed", shown["state"].GetString());
    EXPECT_STREQ("The agent has started anew", shown["error"].GetString());
}

TEST_F(AgentRoutesTest, ListThatIsNoneIsAFailure) {
    for (const std::string& text : {std::string("["), std::string("{}"), std::string("null"),
                                    std::string("[]]"), std::string(100'000, '[')}) {
        const Agent agent =
            scene.addAgent("agent " + std::to_string(text.size()) + text.substr(0, 4));
        answer(agent, ask(agent), 0, text);

        const rapidjson::Document shown = parsed(scene.get(processes(agent)));

        EXPECT_STREQ("failed", shown["state"].GetString());
        EXPECT_STREQ("The collector's list cannot be read.", shown["error"].GetString());
        EXPECT_EQ(0U, shown["processes"].Size());
    }
}

TEST_F(AgentRoutesTest, ListWithoutOutputIsAFailure) {
    const Agent agent = scene.addAgent("build-7");
    answer(agent, ask(agent), 0, "");

    EXPECT_STREQ("failed", parsed(scene.get(processes(agent)))["state"].GetString());
}

TEST_F(AgentRoutesTest, WhatIsMissingOrWrongInAProcessIsLeftEmpty) {
    const Agent agent = scene.addAgent("build-7");
    answer(agent, ask(agent), 0,
           "[1,null,[],{\"pid\":-1,\"user\":5,\"command\":\"\xFF\",\"cpu\":-0.5,\"threads\":1e3,"
           "\"profilable\":\"yes\",\"reason\":{},\"more\":1}]");

    EXPECT_THAT(scene.get(processes(agent)).body,
                HasSubstr("\"processes\":[{\"pid\":0,\"user\":\"\",\"command\":\"\xEF\xBF\xBD\","
                          "\"cpu\":0.0,\"threads\":0,\"profilable\":false,\"reason\":\"\","
                          "\"help\":\"\"}]"));
}

TEST_F(AgentRoutesTest, ListOfALargeMachineIsShownAndALargerOneIsNot) {
    const Agent agent = scene.addAgent("build-7");
    std::string list = "[";
    for (int pid = 1; pid <= 20'000; ++pid) {
        list += std::string(pid == 1 ? "" : ",") + "{\"pid\":" + std::to_string(pid) +
                ",\"command\":\"" + std::string(200, 'x') + "\"}";
    }
    answer(agent, ask(agent), 0, list + "]");
    EXPECT_EQ(20'000U, parsed(scene.get(processes(agent)))["processes"].Size());

    answer(agent, ask(agent), 0, list + std::string(4'000'000, ' ') + "]");
    const rapidjson::Document shown = parsed(scene.get(processes(agent)));
    EXPECT_STREQ("The collector's list has more than 8 MiB.", shown["error"].GetString());
}

}  // namespace
}  // namespace kolvan::test
