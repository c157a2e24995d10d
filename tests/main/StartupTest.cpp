#include "main/Startup.h"

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include <sys/fsuid.h>
#include <unistd.h>

namespace cagnt1 {

namespace {

using kolvan::test::TemporaryDirectory;

namespace fs = std::filesystem;

constexpr char kFileName[] = "kolvan-agent.config.json";
constexpr char kUnopened[] = "Failed to open kolvan-agent.config.json";
constexpr char kNoToken[] = "Access token is empty";
constexpr char kNoEndpoint[] = "Server endpoint is empty";

// Works in another directory while it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const fs::path& directory) : former(fs::current_path()) {
        fs::current_path(directory);
    }
    ~WorkingDirectory() { fs::current_path(former); }

    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    fs::path former;
};

std::string failureIn(const std::string& directory) {
    try {
        (void)readConfiguration(directory);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no failure";
}

std::string failureWith(const std::string& text) {
    const TemporaryDirectory directory;
    directory.write(kFileName, text);
    return failureIn(directory.path());
}

AgentConfiguration withCertificate(const std::string& name) {
    AgentConfiguration configuration;
    configuration.serverCertificateName = name;
    return configuration;
}

TEST(StartupTest, AbsoluteProgramPathGivesItsParent) {
    EXPECT_EQ("/opt/agent", installationDirectory("/opt/agent/kolvan-agent"));
    EXPECT_EQ("/opt/agent", installationDirectory("/opt/agent/another name"));
    EXPECT_EQ("/", installationDirectory("/kolvan-agent"));
}

TEST(StartupTest, RelativeProgramPathIsCompletedWithTheWorkingDirectory) {
    const TemporaryDirectory directory;
    fs::create_directories(directory.entry("a/b"));
    const WorkingDirectory inside(directory.path());

    EXPECT_EQ(directory.path(), fs::path(installationDirectory("kolvan-agent")));
    EXPECT_EQ(directory.entry("a/b"), installationDirectory("a/b/kolvan-agent"));
    EXPECT_TRUE(fs::equivalent(directory.path(), installationDirectory("./kolvan-agent")));
    EXPECT_TRUE(fs::equivalent(directory.path(), installationDirectory("a/../kolvan-agent")));
}

TEST(StartupTest, ProgramInAParentDirectoryIsFound) {
    const TemporaryDirectory directory;
    fs::create_directories(directory.entry("work"));
    const WorkingDirectory inside(directory.entry("work"));

    EXPECT_TRUE(fs::equivalent(directory.path(), installationDirectory("../kolvan-agent")));
}

TEST(StartupTest, WorkingDirectoryDoesNotMatterToAnAbsoluteProgramPath) {
    const TemporaryDirectory directory;
    const WorkingDirectory elsewhere("/");

    EXPECT_EQ(directory.path(), fs::path(installationDirectory(directory.entry("kolvan-agent"))));
}

TEST(StartupTest, LinkToTheProgramIsNotFollowed) {
    const TemporaryDirectory directory;
    directory.write("real/kolvan-agent", "");
    fs::create_directories(directory.entry("bin"));
    fs::create_symlink("../real/kolvan-agent", directory.entry("bin/kolvan-agent"));
    fs::create_directory_symlink("real", directory.entry("link"));

    EXPECT_EQ(directory.entry("bin"), installationDirectory(directory.entry("bin/kolvan-agent")));
    EXPECT_EQ(directory.entry("link"), installationDirectory(directory.entry("link/kolvan-agent")));
}

TEST(StartupTest, ConfigurationIsReadFromTheDirectory) {
    const TemporaryDirectory directory;
    directory.write(kFileName,
                    R"({"accessToken":"t","serverEndpoint":"e","serverCertificateName":"c",)"
                    R"("buildVersion":"b","x86TargetPackageArchiveName":"86",)"
                    R"("x64TargetPackageArchiveName":"64"})"
                    "\n");

    EXPECT_EQ((AgentConfiguration{"t", "e", "c", "b", "86", "64"}),
              readConfiguration(directory.path()));
}

TEST(StartupTest, WorkingDirectorysConfigurationIsNotRead) {
    const TemporaryDirectory directory;
    const TemporaryDirectory elsewhere;
    elsewhere.write(kFileName, R"({"accessToken":"t","serverEndpoint":"e"})");
    const WorkingDirectory inside(elsewhere.path());

    EXPECT_EQ(kUnopened, failureIn(directory.path()));
}

TEST(StartupTest, TokenAndEndpointAreAllThatIsChecked) {
    const TemporaryDirectory directory;
    directory.write(kFileName, R"({"accessToken":" ","serverEndpoint":"no address"})");

    EXPECT_EQ((AgentConfiguration{" ", "no address", "", "", "", ""}),
              readConfiguration(directory.path()));
}

TEST(StartupTest, ConfigurationMayBeLongAndHoldAnyByte) {
    const TemporaryDirectory directory;
    const std::string token = std::string(1'000'000, 't') + "\r\x1A\xFF";
    directory.write(kFileName, R"({"serverEndpoint":"e",)"
                               "\r\n\"accessToken\":\"" +
                                   std::string(1'000'000, 't') + "\\r\\u001A\xFF\"}");

    EXPECT_TRUE(token == readConfiguration(directory.path()).accessToken);
}

TEST(StartupTest, MissingConfigurationIsReportedByItsBareName) {
    const TemporaryDirectory directory;

    EXPECT_EQ(kUnopened, failureIn(directory.path()));
    EXPECT_EQ(kUnopened, failureIn(directory.entry("missing")));
}

TEST(StartupTest, DanglingLinkIsAMissingConfiguration) {
    const TemporaryDirectory directory;
    fs::create_symlink("nowhere", directory.entry(kFileName));

    EXPECT_EQ(kUnopened, failureIn(directory.path()));
}

TEST(StartupTest, ConfigurationWithoutPermissionIsNotOpened) {
    const TemporaryDirectory directory;
    const std::string file = directory.write(kFileName, "{}");
    fs::permissions(directory.path(), fs::perms(0755));
    fs::permissions(file, fs::perms::none);
    std::string failure;

    // Only this thread loses the rights over all files that a superuser has.
    std::thread([&] {
        if (::geteuid() == 0) {
            (void)::setfsuid(65534);
        }
        failure = failureIn(directory.path());
    }).join();

    EXPECT_EQ(kUnopened, failure);
}

TEST(StartupTest, DirectoryInPlaceOfTheConfigurationIsAnEmptyOne) {
    const TemporaryDirectory directory;
    fs::create_directory(directory.entry(kFileName));

    EXPECT_EQ(kNoToken, failureIn(directory.path()));
}

TEST(StartupTest, BrokenConfigurationIsReportedAsAMissingToken) {
    const std::string valid = R"({"accessToken":"t","serverEndpoint":"e"})";
    for (const std::string& text :
         {std::string(), std::string("[]"), std::string("{"), std::string("not JSON"), valid + "x",
          "\xEF\xBB\xBF" + valid, "// comment\n" + valid, "/* comment */" + valid,
          std::string(1, '\0') + valid}) {
        EXPECT_EQ(kNoToken, failureWith(text)) << text;
    }
}

TEST(StartupTest, TokenThatIsNoTextIsMissing) {
    EXPECT_EQ(kNoToken, failureWith(R"({"serverEndpoint":"e"})"));
    EXPECT_EQ(kNoToken, failureWith(R"({"accessToken":123,"serverEndpoint":"e"})"));
    EXPECT_EQ(kNoToken, failureWith(R"({"accessToken":"","serverEndpoint":"e"})"));
}

TEST(StartupTest, EndpointThatIsNoTextIsMissing) {
    EXPECT_EQ(kNoEndpoint, failureWith(R"({"accessToken":"t"})"));
    EXPECT_EQ(kNoEndpoint, failureWith(R"({"accessToken":"t","serverEndpoint":null})"));
    EXPECT_EQ(kNoEndpoint, failureWith(R"({"accessToken":"t","serverEndpoint":""})"));
}

TEST(StartupTest, TokenIsCheckedBeforeTheEndpoint) {
    EXPECT_EQ(kNoToken, failureWith("{}"));
    EXPECT_EQ(kNoToken, failureWith(R"({"serverEndpoint":"","accessToken":""})"));
}

TEST(StartupTest, CertificateLiesInTheDirectory) {
    EXPECT_EQ("/opt/agent/ca.pem", certificatePath("/opt/agent", withCertificate("ca.pem")));
    EXPECT_EQ("/opt/agent/sub/ca.pem",
              certificatePath("/opt/agent", withCertificate("sub/ca.pem")));
    EXPECT_EQ("/opt/agent/ ", certificatePath("/opt/agent", withCertificate(" ")));
    EXPECT_EQ("/ca.pem", certificatePath("/", withCertificate("ca.pem")));
}

TEST(StartupTest, CertificateWithALeadingSlashStaysInTheDirectory) {
    EXPECT_EQ("/opt/agent/ca.pem", certificatePath("/opt/agent", withCertificate("/ca.pem")));
    EXPECT_EQ("/opt/agent/etc/ca.pem",
              certificatePath("/opt/agent", withCertificate("/etc/ca.pem")));
    EXPECT_EQ("/opt/agent//ca.pem", certificatePath("/opt/agent", withCertificate("//ca.pem")));
}

TEST(StartupTest, NoCertificateNameIsNoCertificatePath) {
    EXPECT_EQ("", certificatePath("/opt/agent", withCertificate("")));
}

TEST(StartupTest, TargetLiesInTheDirectory) {
    EXPECT_EQ("/opt/agent/target", targetDirectory("/opt/agent"));
    EXPECT_EQ("/opt/with blank/target", targetDirectory("/opt/with blank"));
    EXPECT_EQ("/target", targetDirectory("/"));
}

}  // namespace

}  // namespace cagnt1
