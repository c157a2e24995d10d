#include "agent/OutputRequest.h"
#include "server/AgentConfigurationJson.h"
#include "server/MessageJson.h"
#include "tests/endtoend/AgentScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::test {
namespace {

using testing::IsEmpty;

constexpr std::size_t kMegabyte = 1'000'000;

TEST(LargeTextLongTest, MessageOf720MegabytesIsWrittenWhole) {
    const std::string text(720 * kMegabyte, 'k');
    constexpr std::string_view kBegin =
        R"({"messageType":"collector:stdout","messageParameters":{"message":")";
    constexpr std::string_view kEnd = R"("}})";

    const std::string json = cagnt1::messageToJson({"collector:stdout", {{"message", text}}});

    ASSERT_EQ(kBegin.size() + text.size() + kEnd.size(), json.size());
    EXPECT_TRUE(json.starts_with(kBegin));
    EXPECT_TRUE(std::string_view(json).substr(kBegin.size(), text.size()) == text);
    EXPECT_TRUE(json.ends_with(kEnd));
}

TEST(LargeTextLongTest, OutputOf540MegabytesIsOneMessage) {
    constexpr std::string_view kBegin =
        R"({"messageType":"collector:stdout","messageParameters":{)";
    const std::string piece(kMegabyte, 'k');
    const std::string group = "a2tr";  // of "kkk"
    const cagnt1::OutputFrame frame({"collector:stdout", {}});
    cagnt1::OutputRequest request(frame);

    for (int i = 0; i < 540; ++i) {
        request.append(piece);
    }
    const std::string json = std::move(request).complete();

    EXPECT_TRUE(json.starts_with(kBegin));
    EXPECT_NE(std::string::npos, json.find(R"("size":"540000000")"));
    const std::size_t start = json.find(R"("message":")") + 11;
    EXPECT_EQ(start + 720 * kMegabyte, json.find('"', start));
    EXPECT_EQ(group, json.substr(start + 360 * kMegabyte, group.size()));
}

TEST(LargeTextLongTest, NestingOfTenMillionIsReadLikeAnyOtherText) {
    for (const char* opening : {"[", R"({"":)"}) {
        std::string text = R"({"messages":)";
        std::string configuration = R"({"other":)";
        for (std::size_t depth = 0; depth < 10 * kMegabyte; ++depth) {
            text += opening;
            configuration += opening;
        }
        EXPECT_THAT(cagnt1::messagesFromJson(text), IsEmpty());
        EXPECT_EQ("", cagnt1::parseConfiguration(configuration).accessToken);
    }
}

/// Writes a configuration of a gigabyte, nearly all of it blanks.
void configureLargely(const AgentInstallation& installation, const std::string& text) {
    std::ofstream file(installation.configurationFile(), std::ios::binary);
    const std::string blanks(kMegabyte, ' ');
    for (int i = 0; i < 1000; ++i) {
        file << blanks;
    }
    file << text;
    file.close();
    ASSERT_TRUE(file);
}

TEST(LargeTextLongTest, ConfigurationOfAGigabyteIsRead) {
    AgentScene scene;
    AgentSettings settings;
    settings.serverEndpoint = scene.server().endpoint();
    settings.buildVersion = "1";
    configureLargely(scene.installation, settings.text());
    AgentProcess agent(scene.launch());

    ASSERT_TRUE(scene.server().waitForMessage("connect", 1, std::chrono::minutes(4)));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(LargeTextLongTest, GigabyteThatIsNoConfigurationIsReportedAsAMissingToken) {
    AgentScene scene;
    configureLargely(scene.installation, "");
    AgentProcess agent(scene.launch());

    // Reading it takes its time: more than one deadline under a sanitizer.
    for (int patience = 0; patience < 20 && agent.isRunning(); ++patience) {
        (void)agent.waitForEnd();
    }
    EXPECT_EQ("exited with 1", agent.waitForEnd());
    EXPECT_EQ("Internal error occured: Access token is empty", agent.errors());
    EXPECT_EQ("Aborting...", agent.output());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
