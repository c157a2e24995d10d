#include "companions/server/api/AuditRoutes.h"

#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;
using testing::ElementsAre;
using testing::HasSubstr;

class AuditRoutesTest : public testing::Test {
protected:
    ReceivedResponse get(const std::string& query) {
        return scene.send(
            ApiRequest{"GET", "/api/v1/audit" + query}.with(scene.token(Role::Administrator)));
    }

    /// Subjects on a page, and the cursor of the next.
    std::vector<std::string> subjects(const std::string& query) {
        rapidjson::Document document;
        document.Parse(get(query).body.c_str());
        std::vector<std::string> found;
        for (const auto& item : document["items"].GetArray()) {
            found.emplace_back(item["subject"].GetString());
        }
        next = document["next"].IsNull() ? "" : document["next"].GetString();
        return found;
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
    std::string next;
};

TEST_F(AuditRoutesTest, LinesSayWhoDidWhat) {
    scene.store.audit().append({0, {}, "ada", "192.0.2.1", "user.add", "bob", "role viewer"});

    EXPECT_THAT(get("?limit=1").body,
                testing::MatchesRegex(
                    R"(\{"items":\[\{"number":[0-9]+,"time":"2026-01-02T03:04:05.006Z",)"
                    R"("actor":"ada","address":"192.0.2.1","action":"user.add","subject":"bob",)"
                    R"("detail":"role viewer"\}\],"next":"[0-9]+"\})"));
}

TEST_F(AuditRoutesTest, LinesAreFilteredByActorAndAction) {
    scene.store.audit().append({0, {}, "ada", "", "user.add", "one", ""});
    scene.store.audit().append({0, {}, "bob", "", "user.remove", "two", ""});
    scene.store.audit().append({0, {}, "ada", "", "users", "three", ""});

    EXPECT_THAT(subjects("?actor=ada"), ElementsAre("three", "one"));
    EXPECT_THAT(subjects("?action=user"), ElementsAre("two", "one"));
    EXPECT_THAT(subjects("?action=user&actor=bob"), ElementsAre("two"));
    EXPECT_EQ(400, get("?subject=one").status);
}

TEST_F(AuditRoutesTest, PagesGoOnWhileLinesAreAdded) {
    for (const char* const subject : {"one", "two", "three"}) {
        scene.store.audit().append({0, {}, "ada", "", "x", subject, ""});
    }

    EXPECT_THAT(subjects("?actor=ada&limit=2"), ElementsAre("three", "two"));
    scene.store.audit().append({0, {}, "ada", "", "x", "four", ""});

    EXPECT_THAT(subjects("?actor=ada&limit=2&cursor=" + next), ElementsAre("one"));
    EXPECT_EQ("", next);
}

TEST_F(AuditRoutesTest, TextsOfStrangersStayTexts) {
    scene.store.audit().append({0, {}, "", "", "agent.refused", "</script>\"\n\xFF", ""});

    EXPECT_THAT(get("?action=agent").body,
                HasSubstr("\"subject\":\"</script>\\\"\\n\xEF\xBF\xBD\""));
}

TEST_F(AuditRoutesTest, OthersDoNotReadIt) {
    EXPECT_EQ(403, scene.get("/api/v1/audit").status);
    EXPECT_EQ(403, scene.send("GET", "/api/v1/audit").status);
}

}  // namespace
}  // namespace kolvan::test
