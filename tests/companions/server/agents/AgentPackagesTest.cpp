// How the agent's own program installs what the server has for it.

#include "tests/companions/server/agents/ServedAgentTest.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace kolvan::server::agents {
namespace {

using test::AgentLaunch;
using test::AgentProcess;

class AgentPackagesTest : public ServedAgentTest {
protected:
    void addBuild(PackageArchitecture architecture, const std::string& number) {
        test::package::Content content;
        content.version = "Scripted collector\nbuild " + number + "\n";
        server.addPackage(architecture,
                          architecture == PackageArchitecture::X86
                              ? settings.x86TargetPackageArchiveName
                              : settings.x64TargetPackageArchiveName,
                          content);
    }

    std::string versionOf(const Agent& agent) {
        const OperationId run = server.execute(agent, "--version");
        EXPECT_EQ("code 0", outcome(run));
        return server.output(run, OutputChannel::Stdout);
    }

    void stop(AgentProcess& process, const Agent& agent) {
        server.stopAgent(agent);
        EXPECT_EQ("exited with 0", process.waitForEnd());
    }
};

TEST_F(AgentPackagesTest, SecondArchiveWins) {
    addBuild(PackageArchitecture::X86, "32");
    addBuild(PackageArchitecture::X64, "64");
    AgentProcess process{AgentLaunch(installation)};

    EXPECT_EQ("Scripted collector\nbuild 64\n", versionOf(waitForAgent()));
}

TEST_F(AgentPackagesTest, NewPackageIsInstalledAtTheNextStart) {
    AgentProcess first{AgentLaunch(installation)};
    EXPECT_EQ("Scripted collector\nbuild 1\n", versionOf(waitForAgent()));
    stop(first, waitForAgent());
    addBuild(PackageArchitecture::X86, "2");
    addBuild(PackageArchitecture::X64, "2");

    AgentProcess second{AgentLaunch(installation)};

    EXPECT_EQ("Scripted collector\nbuild 2\n", versionOf(waitForAgent()));
}

TEST_F(AgentPackagesTest, BuildThatIsThereAlreadyIsNotDownloaded) {
    settings.buildVersion = "1";
    configure();
    AgentProcess first{AgentLaunch(installation)};
    EXPECT_EQ("Scripted collector\nbuild 1\n", versionOf(waitForAgent()));
    stop(first, waitForAgent());
    std::filesystem::remove_all(data.path() / "server" / "packages");

    AgentProcess second{AgentLaunch(installation)};

    EXPECT_EQ("Scripted collector\nbuild 1\n", versionOf(waitForAgent()));
}

TEST_F(AgentPackagesTest, ArchiveThatTheServerDoesNotHaveIsWhatEveryOperationReports) {
    settings.x64TargetPackageArchiveName = "another.tar";
    configure();
    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = waitForAgent();

    EXPECT_EQ("error: Target package is inaccessible", outcome(server.execute(agent, "out x")));
    const Collection collection = server.collect(agent, {"out", "x"});
    EXPECT_EQ("error: Target package is inaccessible", outcome(collection.start));
    stop(process, agent);
}

TEST_F(AgentPackagesTest, ArchiveForTheOtherArchitectureMayBeMissing) {
    settings.x86TargetPackageArchiveName = "another.tar";
    configure();
    AgentProcess process{AgentLaunch(installation)};

    EXPECT_EQ("Scripted collector\nbuild 1\n", versionOf(waitForAgent()));
}

}  // namespace
}  // namespace kolvan::server::agents
