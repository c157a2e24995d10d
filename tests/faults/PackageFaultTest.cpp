#include "tests/endtoend/AgentScene.h"
#include "tests/support/PlainTransfer.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RawServer.h"

#include <boost/filesystem/exception.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// Runs a case with a file system of its own in the place of a directory, as "tmpfs" takes options.
void withDisk(const fs::path& directory, const std::string& options, unsigned long flags,
              const std::function<void()>& body) {
    fs::create_directories(directory);
    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", directory.c_str(), "tmpfs", flags, options.c_str()));
        body();
    });
    if (!mounted) {
        GTEST_SKIP() << "a disk of its own takes the right to mount one";
    }
}

SceneSettings freshInstallation() {
    SceneSettings settings;
    settings.installed = false;
    return settings;
}

void expectOrderlyStop(AgentScene& scene, AgentProcess& agent) {
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

std::uintmax_t sizeOfPackage(const AgentScene& scene) {
    return fs::file_size(scene.installation.surroundings().path() / "packages/package-x64.tar");
}

TEST(PackageFaultTest, DiskThatIsFullDuringTheDownloadIsTheErrorOfEveryOperation) {
    AgentScene scene(freshInstallation());
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});
    const RawServer server(answerWith(httpReply(200, "reply")));
    const std::string report =
        withoutNumbers(failInDetail(server.endpoint(), {.takesReply = false}).description);

    withDisk(scene.installation.target(), "size=16k", 0, [&] {
        AgentProcess agent(scene.launch());

        EXPECT_EQ("error: " + report, withoutNumbers(scene.run(messages::execute("run", "out x"))));
        EXPECT_EQ("error: " + report,
                  withoutNumbers(scene.run(messages::startCollection("collect", "-r\nx", ""))));

        expectOrderlyStop(scene, agent);
        EXPECT_THAT(withoutNumbers(agent.errors()), HasSubstr(report));
    });
}

TEST(PackageFaultTest, DiskThatIsFullDuringTheExtractionIsReportedAndTheAgentGoesOn) {
    package::Content withoutCollector;
    withoutCollector.withCollector = false;
    AgentScene scene(freshInstallation());
    scene.offer("package-x86.tar", withoutCollector);
    scene.offer("package-x64.tar", {});
    // Room for both archives, the text of the version and a small part of the collector.
    const std::string size = "size=" + std::to_string(sizeOfPackage(scene) * 9 / 8 + 50'000);

    withDisk(scene.installation.target(), size, 0, [&] {
        AgentProcess agent(scene.launch());

        // What becomes of a collector whose end is missing is a matter of the end that is missing.
        EXPECT_NE("not finished", scene.run(messages::execute("run", "out x")));
        EXPECT_NE("not finished", scene.run(messages::startCollection("collect", "-r\nx", "")));

        expectOrderlyStop(scene, agent);
        EXPECT_THAT(agent.errors(), HasSubstr("Write failed\nWrite failed\n"));
    });
}

TEST(PackageFaultTest, TargetThatCannotBeWrittenMakesThePackageInaccessible) {
    AgentScene scene(freshInstallation());
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});

    withDisk(scene.installation.target(), "size=1m", MS_RDONLY, [&] {
        AgentProcess agent(scene.launch());

        EXPECT_EQ("error: Target package is inaccessible",
                  scene.run(messages::execute("run", "out x")));

        expectOrderlyStop(scene, agent);
        EXPECT_THAT(scene.server().packageRequests(), IsEmpty());
    });
}

TEST(PackageFaultTest, TargetThatLeadsNowhereIsReportedToTheServer) {
    AgentScene scene(freshInstallation());
    fs::create_symlink("nowhere/at/all", scene.installation.target());
    AgentProcess agent(scene.launch());

    ASSERT_TRUE(scene.server().waitForMessage("error"));
    EXPECT_EQ("error: Target package is inaccessible",
              scene.run(messages::execute("run", "out x")));

    expectOrderlyStop(scene, agent);
    for (const auto& received : scene.server().transcript()) {
        if (received.message.type == "error") {
            EXPECT_EQ("Failed to create directory '" + scene.installation.target().string() +
                          "' for the target package: File exists",
                      received.message.parameter("errorMessage"));
        }
    }
    EXPECT_EQ("", agent.errors());
}

TEST(PackageFaultTest, DiskWithoutRoomForAResultDirectoryIsTheCollectionsError) {
    AgentScene scene;

    // The name of the directory is the agent's choice; what precedes it is known.
    const boost::filesystem::filesystem_error error(
        "boost::filesystem::create_directory", scene.installation.temporaryFiles().string() + "/",
        boost::system::error_code(ENOSPC, boost::system::system_category()));
    std::string reason = error.what();
    reason.pop_back();  // the closing quotation mark

    // One entry is the root's own.
    withDisk(scene.installation.temporaryFiles(), "nr_inodes=1", 0, [&] {
        AgentProcess agent(scene.launch());

        EXPECT_THAT(scene.run(messages::startCollection("collect", "-r\nx\nout\nx", "")),
                    StartsWith("error: " + reason));
        EXPECT_EQ("code 0", scene.run(messages::execute("run", "out x")));

        expectOrderlyStop(scene, agent);
        EXPECT_THAT(scene.installation.leftFiles(), Not(testing::Contains(HasSubstr("config/"))));
    });
}

TEST(PackageFaultTest, OptionFileThatWasCutIsNeverRun) {
    AgentScene scene;

    withDisk(scene.installation.temporaryFiles(), "size=16k", 0, [&] {
        AgentProcess agent(scene.launch());

        EXPECT_THAT(scene.run(messages::startCollection(
                        "collect", "out\nstarted\nout\n" + std::string(100'000, 'x'), "")),
                    StartsWith("error: Failed to write options file: "));
        EXPECT_EQ("", scene.output("collect"));
        EXPECT_EQ("code 0", scene.run(messages::execute("run", "out x")));

        expectOrderlyStop(scene, agent);
    });
}

}  // namespace
}  // namespace kolvan::test
