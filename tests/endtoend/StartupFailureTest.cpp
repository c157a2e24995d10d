#include "tests/support/AgentProcess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

const char* const kNoFile = "Failed to open kolvan-agent.config.json";
const char* const kNoToken = "Access token is empty";
const char* const kNoEndpoint = "Server endpoint is empty";
const char* const kNoX86Name = "Undefined x86 target package name.";
const char* const kNoX64Name = "Undefined x64 target package name.";

/// Expects that a start fails with the text, says nothing else and leaves nothing behind.
void expectFailure(const std::string& text, const AgentInstallation& installation,
                   const AgentLaunch& launch) {
    const auto filesBefore = installation.leftFiles();

    AgentProcess agent(launch);

    EXPECT_EQ("exited with 1", agent.waitForEnd());
    EXPECT_EQ("Internal error occured: " + text, agent.errors());
    EXPECT_EQ("Aborting...", agent.output());
    EXPECT_EQ(filesBefore, installation.leftFiles());
    EXPECT_TRUE(leftChildren().empty());
}

void expectFailure(const std::string& text, const AgentInstallation& installation) {
    expectFailure(text, installation, AgentLaunch(installation));
}

struct BadConfiguration {
    std::string name;
    std::string text;
    std::string failure;
};

void PrintTo(const BadConfiguration& configuration, std::ostream* stream) {
    *stream << configuration.name;
}

class BadConfigurationTest : public testing::TestWithParam<BadConfiguration> {};

TEST_P(BadConfigurationTest, EndsTheStart) {
    const AgentInstallation installation;
    installation.configure(GetParam().text);

    expectFailure(GetParam().failure, installation);
}

std::string nameOfCase(const testing::TestParamInfo<BadConfiguration>& caseInfo) {
    return caseInfo.param.name;
}

const std::string kGood = R"({"accessToken":"t","serverEndpoint":"http://127.0.0.1:1",)"
                          R"("x86TargetPackageArchiveName":"a","x64TargetPackageArchiveName":"b"})";

INSTANTIATE_TEST_SUITE_P(
    StartupFailureTest, BadConfigurationTest,
    testing::Values(
        BadConfiguration{"Empty", "", kNoToken}, BadConfiguration{"Blank", " \t\r\n", kNoToken},
        BadConfiguration{"NoJson", "accessToken=t", kNoToken},
        BadConfiguration{"Truncated", kGood.substr(0, kGood.size() - 1), kNoToken},
        BadConfiguration{"ByteOrderMark", "\xEF\xBB\xBF" + kGood, kNoToken},
        BadConfiguration{"EmptyArray", "[]", kNoToken},
        BadConfiguration{"ObjectInArray", "[" + kGood + "]", kNoToken},
        BadConfiguration{"Null", "null", kNoToken},
        BadConfiguration{"TrailingText", kGood + " x", kNoToken},
        BadConfiguration{"TrailingObject", kGood + kGood, kNoToken},
        BadConfiguration{"Comment", "/* settings */" + kGood, kNoToken},
        BadConfiguration{"NulInTheMiddle",
                         kGood.substr(0, 20) + std::string(1, '\0') + kGood.substr(20), kNoToken},
        BadConfiguration{"DeeplyNested", std::string(200000, '['), kNoToken},
        BadConfiguration{"NoKeys", "{}", kNoToken},
        BadConfiguration{"TokenMissing", R"({"serverEndpoint":"e"})", kNoToken},
        BadConfiguration{"TokenEmpty", R"({"accessToken":"","serverEndpoint":"e"})", kNoToken},
        BadConfiguration{"TokenOfOtherCase", R"({"AccessToken":"t","serverEndpoint":"e"})",
                         kNoToken},
        BadConfiguration{"TokenIsNumber", R"({"accessToken":123,"serverEndpoint":"e"})", kNoToken},
        BadConfiguration{"TokenEndsAtNul", R"({"accessToken":"\u0000t","serverEndpoint":"e"})",
                         kNoToken},
        BadConfiguration{"FirstTokenCounts",
                         R"({"accessToken":"","accessToken":"t","serverEndpoint":"e"})", kNoToken},
        BadConfiguration{"EndpointMissing", R"({"accessToken":"t"})", kNoEndpoint},
        BadConfiguration{"EndpointIsObject", R"({"accessToken":"t","serverEndpoint":{}})",
                         kNoEndpoint},
        BadConfiguration{"BlankTokenCounts", R"({"accessToken":" "})", kNoEndpoint},
        BadConfiguration{"BothArchiveNamesMissing", R"({"accessToken":"t","serverEndpoint":"e"})",
                         kNoX86Name},
        BadConfiguration{"X86ArchiveNameMissing",
                         R"({"accessToken":"t","serverEndpoint":"e",)"
                         R"("x64TargetPackageArchiveName":"b"})",
                         kNoX86Name},
        BadConfiguration{"X64ArchiveNameMissing",
                         R"({"accessToken":"t","serverEndpoint":"e",)"
                         R"("x86TargetPackageArchiveName":"a"})",
                         kNoX64Name},
        BadConfiguration{"VeryLong",
                         R"({"accessToken":"t","serverEndpoint":"e"})" +
                             std::string(std::size_t{16} << 20U, ' '),
                         kNoX86Name}),
    nameOfCase);

TEST(StartupFailureTest, MissingFileIsNamedWithoutItsDirectory) {
    const AgentInstallation installation;

    expectFailure(kNoFile, installation);
}

TEST(StartupFailureTest, LinkToNowhereCannotBeOpened) {
    const AgentInstallation installation;
    fs::create_symlink("nowhere", installation.configurationFile());

    expectFailure(kNoFile, installation);
}

TEST(StartupFailureTest, FileWithoutPermissionCannotBeOpened) {
    const AgentInstallation installation;
    installation.configure(kGood);
    fs::permissions(installation.configurationFile(), fs::perms::none);
    AgentLaunch launch(installation);
    launch.mayReadEverything = false;

    expectFailure(kNoFile, installation, launch);
}

TEST(StartupFailureTest, DirectoryInPlaceOfTheFileHoldsNoToken) {
    const AgentInstallation installation;
    fs::create_directory(installation.configurationFile());

    expectFailure(kNoToken, installation);
}

TEST(StartupFailureTest, RelativePathIsTakenFromTheWorkingDirectory) {
    const AgentInstallation installation;
    installation.configure(R"({"accessToken":"t"})");
    AgentLaunch launch(installation);
    launch.firstArgument = "agent/kolvan-agent";
    launch.workingDirectory = installation.directory().parent_path();

    expectFailure(kNoEndpoint, installation, launch);
}

TEST(StartupFailureTest, BareNameIsTakenFromTheWorkingDirectory) {
    const AgentInstallation installation;
    installation.configure(R"({"accessToken":"t"})");
    AgentLaunch launch(installation);
    launch.firstArgument = "kolvan-agent";

    expectFailure(kNoEndpoint, installation, launch);
}

TEST(StartupFailureTest, PathWithDotsIsFollowedAsItStands) {
    const AgentInstallation installation;
    installation.configure(R"({"accessToken":"t"})");
    AgentLaunch launch(installation);
    launch.firstArgument = "./../agent/./kolvan-agent";

    expectFailure(kNoEndpoint, installation, launch);
}

TEST(StartupFailureTest, AbsolutePathDoesNotNeedTheWorkingDirectory) {
    const AgentInstallation installation;
    installation.configure(R"({"accessToken":"t"})");
    AgentLaunch launch(installation);
    launch.workingDirectory = "/";

    expectFailure(kNoEndpoint, installation, launch);
}

TEST(StartupFailureTest, WorkingDirectoryIsNotSearched) {
    const AgentInstallation installation;
    const fs::path elsewhere = installation.surroundings().path() / "elsewhere";
    installation.surroundings().write("elsewhere/kolvan-agent.config.json",
                                      R"({"accessToken":"t"})");
    AgentLaunch launch(installation);
    launch.workingDirectory = elsewhere;

    expectFailure(kNoFile, installation, launch);
}

TEST(StartupFailureTest, DirectoryOfTheLinkCountsAndNotThatOfTheProgram) {
    const AgentInstallation installation;
    installation.configure(R"({"accessToken":"t"})");
    const fs::path link = installation.surroundings().path() / "links" / "started";
    fs::create_directory(link.parent_path());
    fs::create_symlink(installation.program(), link);
    AgentLaunch launch(installation);
    launch.program = link;
    launch.firstArgument = link;

    expectFailure(kNoFile, installation, launch);
}

TEST(StartupFailureTest, FirstArgumentCountsAndNotTheFileThatRuns) {
    const AgentInstallation installation;
    const AgentInstallation other;
    other.configure(R"({"accessToken":"t"})");
    AgentLaunch launch(installation);
    launch.firstArgument = other.program();

    expectFailure(kNoEndpoint, installation, launch);
}

}  // namespace
}  // namespace kolvan::test
