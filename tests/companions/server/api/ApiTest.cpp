#include "companions/server/api/Api.h"

#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace kolvan::test {
namespace {

using namespace kolvan::server;

class ApiTest : public testing::Test {
protected:
    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(ApiTest, NobodyComesInWithoutToken) {
    const ReceivedResponse response = scene.send(ApiRequest{"GET", "/api/v1/agents", {}, {}, {}});

    EXPECT_EQ(401, response.status);
    EXPECT_EQ("Bearer", response.fields.at("www-authenticate"));
    EXPECT_EQ("application/problem+json", response.fields.at("content-type"));
    EXPECT_EQ(R"({"title":"Unauthorized","status":401,"detail":)"
              R"("This needs a token in the field \"Authorization\", or a session."})",
              response.body);
}

}  // namespace
}  // namespace kolvan::test
