#include "tests/endtoend/AgentScene.h"
#include "tests/support/PlainTransfer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kX86 = "package-x86.tar";
const std::string kX64 = "package-x64.tar";

package::Content build(const std::string& number) {
    package::Content content;
    content.version = "Scripted collector\nbuild " + number + "\n";
    return content;
}

SceneSettings freshInstallation() {
    SceneSettings settings;
    settings.installed = false;
    return settings;
}

/// The lines of standard output that are not part of an exchange of messages.
std::string progressOf(const AgentProcess& agent) {
    std::istringstream lines(agent.output());
    std::string progress;
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("out: ") && !line.starts_with("in:  ")) {
            progress += line + "\n";
        }
    }
    return progress;
}

std::string foundLines(const AgentScene& scene) {
    const std::string target = scene.installation.target();
    return "kolvan-trcap is found at " + target +
           "/collector/bin/kolvan-trcap\nTarget package directory: " + target + "/collector\n";
}

std::string notFoundLine(const AgentScene& scene) {
    return "kolvan-trcap is not found in " + scene.installation.target().string() + "\n";
}

std::string extractingLines(const AgentScene& scene, const std::string& archive) {
    const std::string target = scene.installation.target();
    return "Downloading target package\nExtracting " + target + "/" + archive + " to " + target +
           "\n";
}

std::vector<std::string> requestedPackages(AgentScene& scene) {
    std::vector<std::string> names;
    for (const PackageRequest& request : scene.server().packageRequests()) {
        names.push_back(request.name);
    }
    return names;
}

/// Puts a file that is no library where the agent's loader looks for libarchive first.
/// @return how to start the agent there
AgentLaunch launchWithBrokenLibarchive(const AgentScene& scene) {
    const fs::path libraries = scene.installation.surroundings().entry("libraries");
    fs::create_directory(libraries);
    std::ofstream(libraries / KOLVAN_LIBARCHIVE) << "no library";
    AgentLaunch launch = scene.launch();
    launch.environment["LD_LIBRARY_PATH"] = libraries;
    return launch;
}

/// What the loader says of that file.
std::string brokenLibarchive(const AgentScene& scene) {
    const fs::path file =
        scene.installation.surroundings().path() / "libraries" / KOLVAN_LIBARCHIVE;
    EXPECT_EQ(nullptr, ::dlopen(file.c_str(), RTLD_NOW));
    const char* text = ::dlerror();
    return text != nullptr ? text : "no failure";
}

FaultyRelay::Rule ruleFor(const std::string& part, Treatment treatment) {
    return [part, treatment](const std::string& request) {
        return request.find(part) == std::string::npos ? Treatment::Pass : treatment;
    };
}

TEST(InstallationTest, BothArchivesAreExtractedInOrderAndTheSecondWins) {
    AgentScene scene(freshInstallation());
    scene.offer(kX86, build("32"));
    scene.offer(kX64, build("64"));
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("version", "--version")));

    EXPECT_EQ("Scripted collector\nbuild 64\n", scene.output("version"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(requestedPackages(scene), ElementsAre(kX86, kX64));
    EXPECT_EQ(extractingLines(scene, kX86) + foundLines(scene) + extractingLines(scene, kX64) +
                  foundLines(scene),
              progressOf(agent));
    EXPECT_EQ(notFoundLine(scene), agent.errors());
    EXPECT_THAT(
        scene.installation.leftFiles(),
        ElementsAre("kolvan-agent", "kolvan-agent.config.json", "target", "target/collector",
                    "target/collector/bin", "target/collector/bin/kolvan-trcap",
                    "target/collector/bin/version.txt", "target/" + kX64, "target/" + kX86));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, BuildThatIsThereAlreadyIsNotDownloaded) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("version", "--version")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(requestedPackages(scene), IsEmpty());
    EXPECT_EQ(foundLines(scene), progressOf(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, AgentThatInstallsNothingDoesWithoutLibarchive) {
    AgentScene scene;
    AgentProcess agent(launchWithBrokenLibarchive(scene));

    EXPECT_EQ("code 0", scene.run(messages::execute("version", "--version")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, LibarchiveThatCannotBeLoadedIsWhatEveryLaterOperationReports) {
    AgentScene scene(freshInstallation());
    scene.offer(kX86, build("1"));
    scene.offer(kX64, build("1"));
    AgentProcess agent(launchWithBrokenLibarchive(scene));
    const std::string expected = "error: Failed to load libarchive: " + brokenLibarchive(scene);

    EXPECT_EQ(expected, scene.run(messages::execute("one", "out x")));

    EXPECT_EQ(expected, scene.run(messages::startCollection("two", "out\nx", "traces")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(requestedPackages(scene), ElementsAre(kX86));
    EXPECT_EQ(notFoundLine(scene), agent.errors());
    EXPECT_THAT(scene.resultDirectories(), IsEmpty());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, OtherBuildIsRemovedAndReplaced) {
    SceneSettings settings = freshInstallation();
    settings.agent.buildVersion = "2";
    AgentScene scene(settings);
    const fs::path old = scene.installation.surroundings().entry("old.tar");
    package::Content oldContent = build("1");
    oldContent.moreFiles = {"bin/left-over"};
    package::make(old, oldContent);
    package::unpack(old, scene.installation.target());
    scene.offer(kX86, build("2"));
    scene.offer(kX64, build("2"));
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("version", "--version")));

    EXPECT_EQ("Scripted collector\nbuild 2\n", scene.output("version"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(requestedPackages(scene), ElementsAre(kX86, kX64));
    EXPECT_EQ(foundLines(scene) + "Uninstalling existing target package at " +
                  scene.installation.target().string() + "/collector\n" +
                  extractingLines(scene, kX86) + foundLines(scene) + extractingLines(scene, kX64) +
                  foundLines(scene),
              progressOf(agent));
    EXPECT_FALSE(fs::exists(scene.installation.target() / "collector/bin/left-over"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, EmptyBuildVersionInstallsAnewAtEveryStart) {
    AgentScene scene(freshInstallation());
    scene.offer(kX86, build("1"));
    scene.offer(kX64, build("1"));
    AgentProcess first(scene.launch());
    EXPECT_EQ("code 0", scene.run(messages::execute("first", "out x")));
    EXPECT_EQ("exited with 0", scene.stop(first));
    AgentProcess second(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("second", "out x")));

    EXPECT_EQ("exited with 0", scene.stop(second));
    EXPECT_THAT(requestedPackages(scene), ElementsAre(kX86, kX64, kX86, kX64));
}

TEST(InstallationTest, EveryStartHasAnotherIdentity) {
    AgentScene scene;
    AgentProcess first(scene.launch());
    EXPECT_EQ("exited with 0", scene.stop(first));
    AgentProcess second(scene.launch());
    EXPECT_EQ("exited with 0", scene.stop(second));

    std::set<std::string> identities;
    for (const auto& received : scene.server().transcript()) {
        identities.insert(received.message.parameter("agentUuid"));
    }

    EXPECT_EQ(2U, identities.size());
}

TEST(InstallationTest, BrokenX86DownloadIsWhatEveryLaterOperationReports) {
    SceneSettings settings = freshInstallation();
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.offer(kX86, build("1"));
    scene.offer(kX64, build("1"));
    scene.relay().treat(ruleFor(kX86, Treatment::ResetInAnswer));
    AgentProcess agent(scene.launch());

    const std::string outcome = scene.run(messages::execute("one", "out x"));

    EXPECT_EQ("error: " + reportOfAReset(), outcome);
    EXPECT_EQ(outcome, scene.run(messages::startCollection("two", "out\nx", "traces")));
    EXPECT_EQ(outcome, scene.run(messages::collectionCommand("three", "status")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(requestedPackages(scene), ElementsAre(kX86));
    EXPECT_EQ("Downloading target package\n", progressOf(agent));
    EXPECT_EQ(notFoundLine(scene) + reportOfAReset(), agent.errors());
    EXPECT_THAT(scene.resultDirectories(), IsEmpty());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, BrokenX64DownloadIsReportedLikewise) {
    SceneSettings settings = freshInstallation();
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.offer(kX86, build("1"));
    scene.offer(kX64, build("1"));
    scene.relay().treat(ruleFor(kX64, Treatment::Reset));
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: " + reportOfAReset(), scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, MissingX86ArchiveDoesNotMatter) {
    AgentScene scene(freshInstallation());
    scene.offer(kX64, build("1"));
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(requestedPackages(scene), ElementsAre(kX86, kX64));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, MissingX64ArchiveMakesThePackageInaccessible) {
    AgentScene scene(freshInstallation());
    scene.offer(kX86, build("1"));
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: Target package is inaccessible",
              scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("error: Target package is inaccessible",
              scene.run(messages::startCollection("two", "out\nx", "")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, ArchivesWithoutACollectorMakeThePackageInaccessible) {
    AgentScene scene(freshInstallation());
    package::Content empty;
    empty.withCollector = false;
    scene.offer(kX86, empty);
    scene.offer(kX64, empty);
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: Target package is inaccessible",
              scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ(notFoundLine(scene) + notFoundLine(scene) + notFoundLine(scene), agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, CollectorOneDirectoryTooDeepIsNotFound) {
    AgentScene scene(freshInstallation());
    package::Content deep;
    deep.inner = "bin/deeper";
    scene.offer(kX86, deep);
    scene.offer(kX64, deep);
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: Target package is inaccessible",
              scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, OperationsWaitForTheInstallation) {
    SceneSettings settings = freshInstallation();
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.offer(kX86, build("1"));
    scene.offer(kX64, build("1"));
    scene.relay().treat(ruleFor("target-package", Treatment::Hold));
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.relay().waitForHeld(1));
    scene.server().send({messages::execute("one", "out x"), messages::execute("two", "out y")});
    ASSERT_TRUE(scene.server().waitForMessage("commands:get", 2));
    EXPECT_EQ(0U, scene.server().count("collector:finish"));

    scene.relay().release();

    EXPECT_EQ("code 0", scene.outcome("one"));
    EXPECT_EQ("code 0", scene.outcome("two"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, DirectoryWithBlanksAndShellCharactersIsNoObstacle) {
    SceneSettings settings;
    settings.directoryName = "my \"agent\" $HOME; it's `id` & *?(x) \\ <y>|#";
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("x\n", scene.output("one"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    // The version was read: nothing had to be downloaded.
    EXPECT_THAT(requestedPackages(scene), IsEmpty());
    EXPECT_EQ(foundLines(scene), progressOf(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InstallationTest, TargetThatCannotBeMadeIsReportedAndTheAgentGoesOn) {
    AgentScene scene(freshInstallation());
    fs::create_symlink("nowhere/at/all", scene.installation.target());
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: Target package is inaccessible",
              scene.run(messages::execute("one", "out x")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "error", "collector:finish", "disconnect"));
    EXPECT_THAT(scene.server().transcript().at(1).message.parameter("errorMessage"),
                StartsWith("Failed to create directory '" + scene.installation.target().string() +
                           "' for the target package: "));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
