#include "server/AgentConfiguration.h"
#include "server/AgentConfigurationJson.h"
#include "server/Message.h"
#include "server/MessageJson.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace cagnt1 {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// The texts of a document that lie between a line and the next one that is the other line.
std::vector<std::string> textsBetween(const std::string& document, const std::string& first,
                                      const std::string& last) {
    std::ifstream file(KOLVAN_SOURCE_DIR "/" + document);
    std::vector<std::string> texts;
    bool inside = false;
    for (std::string line; std::getline(file, line);) {
        if (!inside && line == first) {
            inside = true;
            texts.emplace_back();
        } else if (inside && line == last) {
            inside = false;
        } else if (inside) {
            texts.back() += line + "\n";
        }
    }
    return texts;
}

// The JSON examples of a document, in their order.
std::vector<std::string> examplesIn(const std::string& document) {
    return textsBetween(document, "```json", "```");
}

std::string readmeExample() {
    const std::vector<std::string> examples = examplesIn("README.md");
    return examples.size() == 1 ? examples.front() : "";
}

TEST(DocumentationTest, ConfigurationOfTheReadmeHasAllSettings) {
    const AgentConfiguration configuration = parseConfiguration(readmeExample());

    EXPECT_EQ("the token by which the server knows this agent", configuration.accessToken);
    EXPECT_EQ("https://profiling.example.com:8443", configuration.serverEndpoint);
    EXPECT_EQ("", configuration.serverCertificateName);
    EXPECT_EQ("612345", configuration.buildVersion);
    EXPECT_EQ("target-x86.tar.gz", configuration.x86TargetPackageArchiveName);
    EXPECT_EQ("target-x64.tar.gz", configuration.x64TargetPackageArchiveName);
}

TEST(DocumentationTest, ConfigurationIsTheSameInEveryDocument) {
    EXPECT_THAT(examplesIn("docs/configuration.md"), ElementsAre(readmeExample()));
    EXPECT_THAT(textsBetween("docs/man/kolvan-agent.config.json.5", ".Bd -literal", ".Ed"),
                ElementsAre(readmeExample()));
}

TEST(DocumentationTest, ConfigurationOfTheInstallationHasAllSettings) {
    const std::vector<std::string> examples = textsBetween(
        "docs/install.md",
        "install -m 0600 /dev/stdin \"$HOME/kolvan/kolvan-agent.config.json\" <<'JSON'", "JSON");
    ASSERT_THAT(examples, SizeIs(1));

    const AgentConfiguration configuration = parseConfiguration(examples.front());

    EXPECT_EQ("secret-token", configuration.accessToken);
    EXPECT_EQ("http://127.0.0.1:8080", configuration.serverEndpoint);
    EXPECT_EQ("", configuration.serverCertificateName);
    EXPECT_EQ("", configuration.buildVersion);
    EXPECT_EQ("target-x86.tar.gz", configuration.x86TargetPackageArchiveName);
    EXPECT_EQ("target-x64.tar.gz", configuration.x64TargetPackageArchiveName);
}

TEST(DocumentationTest, AnnouncementOfTheProtocolNamesItsParameters) {
    const std::vector<std::string> examples = examplesIn("docs/protocol.md");
    ASSERT_THAT(examples, SizeIs(2));

    const std::vector<Message> messages = messagesFromJson("{\"messages\":[" + examples[0] + "]}");

    ASSERT_THAT(messages, SizeIs(1));
    EXPECT_EQ("connect", messages[0].type);
    std::vector<std::string> names;
    for (const auto& [name, value] : messages[0].parameters) {
        names.push_back(name);
    }
    EXPECT_THAT(names, UnorderedElementsAre("accessToken", "agentUuid", "hostname",
                                            "serverResolvedHostnames", "serverResolvedIpAddress"));
}

TEST(DocumentationTest, ReplyOfTheProtocolIsOneThatTheAgentReads) {
    const std::vector<std::string> examples = examplesIn("docs/protocol.md");
    ASSERT_THAT(examples, SizeIs(2));

    const std::vector<Message> messages = messagesFromJson(examples[1]);

    ASSERT_THAT(messages, SizeIs(2));
    EXPECT_EQ("connected", messages[0].type);
    EXPECT_EQ("collector:execute", messages[1].type);
    EXPECT_EQ("1", messages[1].parameter("id"));
    EXPECT_EQ("--version", messages[1].parameter("args"));
}

}  // namespace
}  // namespace cagnt1
