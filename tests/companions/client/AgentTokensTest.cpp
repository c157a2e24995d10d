#include "tests/companions/client/KolvanRun.h"
#include "tests/companions/server/support/ApiScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace kolvan::client::test {
namespace {

using kolvan::test::ApiScene;
using kolvan::test::TemporaryDirectory;
using server::Role;
using server::sha256;
using testing::MatchesRegex;

/// The program and the server itself.
class AgentTokensTest : public testing::Test {
protected:
    Outcome run(std::vector<std::string> words, Role role = Role::Administrator) {
        words.insert(words.begin(), "agent-token");
        return KolvanRun(home, words,
                         {{"KOLVAN_SERVER", "http://127.0.0.1:" + std::to_string(scene.port())},
                          {"KOLVAN_TOKEN", scene.token(role)}})
            .outcome();
    }

    /// Makes a token. @return its text
    std::string add(const std::string& name) {
        std::string text = run({"add", name}).output;
        text.resize(text.empty() ? 0 : text.size() - 1);  // the line's end
        return text;
    }

    bool opens(const std::string& text) {
        return scene.store.agents().findToken(sha256(text)).has_value();
    }

    const TemporaryDirectory home;
    const TemporaryDirectory data;
    ApiScene scene{data.path()};
};

TEST_F(AgentTokensTest, TokenAloneIsOnStandardOutputAndLetsItsAgentConnect) {
    const Outcome outcome = run({"add", "build-7"});

    EXPECT_EQ(0, outcome.code);
    EXPECT_THAT(outcome.output, MatchesRegex("kat_[-_A-Za-z0-9]{43}\n"));
    EXPECT_EQ("This is the \"accessToken\" for the agent build-7. It is shown this once.\n",
              outcome.errors);
    const auto token =
        scene.store.agents().findToken(sha256(outcome.output.substr(0, outcome.output.size() - 1)));
    ASSERT_TRUE(token);
    EXPECT_EQ("build-7", token->name);
    EXPECT_FALSE(token->shared);
}

TEST_F(AgentTokensTest, TokenMayBeForManyMachines) {
    EXPECT_EQ("This is the \"accessToken\" for agents that share fleet. It is shown this once.\n",
              run({"add", "fleet", "--shared"}).errors);

    EXPECT_TRUE(scene.store.agents().listTokens().at(0).shared);
}

TEST_F(AgentTokensTest, RevokedTokenOpensNothingAndItsNameIsFreeAgain) {
    const std::string first = add("build-7");
    ASSERT_TRUE(opens(first));

    const Outcome outcome = run({"revoke", "build-7"});

    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ("The token build-7 opens nothing any more.\n", outcome.output);
    EXPECT_FALSE(opens(first));
    const std::string second = add("build-7");
    EXPECT_EQ(0, run({"revoke", "build-7"}).code);
    EXPECT_FALSE(opens(second));
    EXPECT_EQ(
        "kolvan: There is no token 'build-7' in use; \"kolvan agent-token list\" lists all of "
        "them.\n",
        run({"revoke", "build-7"}).errors);
}

TEST_F(AgentTokensTest, ListShowsThoseOfAgentsNewestFirst) {
    (void)add("build-7");
    (void)run({"revoke", "build-7"});
    (void)run({"add", "fleet", "--shared"});

    const std::string time = "[-:.TZ0-9]{24}";
    EXPECT_THAT(run({"list"}).output, MatchesRegex("NAME     FOR          MADE {22}REVOKED\n"
                                                   "fleet    many agents  " +
                                                   time +
                                                   "  -\n"
                                                   "build-7  one agent    " +
                                                   time + "  " + time + "\n"));
}

TEST_F(AgentTokensTest, JsonIsWhatTheServerSays) {
    rapidjson::Document made;
    made.Parse(run({"add", "build-7", "--json"}).output.c_str());
    rapidjson::Document revoked;
    revoked.Parse(run({"revoke", "build-7", "--json"}).output.c_str());
    rapidjson::Document listed;
    listed.Parse(run({"list", "--json"}).output.c_str());

    ASSERT_TRUE(made.IsObject() && revoked.IsObject() && listed.IsArray());
    EXPECT_TRUE(made["token"].IsString());
    EXPECT_TRUE(revoked["revoked"].IsString());
    ASSERT_EQ(1U, listed.Size());
    EXPECT_EQ(revoked, listed[0]);
}

TEST_F(AgentTokensTest, RoleThatIsTooLowIsToldSo) {
    const Outcome outcome = run({"add", "build-7"}, Role::Engineer);

    EXPECT_EQ(1, outcome.code);
    EXPECT_THAT(outcome.errors, testing::StartsWith("kolvan: Your role does not allow this."));
    EXPECT_TRUE(scene.store.agents().listTokens().empty());
}

}  // namespace
}  // namespace kolvan::client::test
