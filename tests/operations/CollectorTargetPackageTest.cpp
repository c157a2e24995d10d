#include "collector/Collector.h"

#include "tests/operations/AuditedTest.h"
#include "tests/operations/CollectorScripts.h"
#include "tests/operations/Failure.h"
#include "tests/operations/OwnProcess.h"
#include "tests/support/ArchiveBuilder.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <iostream>
#include <memory>
#include <streambuf>

#include <unistd.h>

namespace cagnt1::operations {
namespace {

namespace fs = std::filesystem;
using kolvan::test::ArchiveBuilder;
using kolvan::test::CapturedStream;

/// What was written to standard output and to standard error.
struct Printed {
    std::string output;
    std::string problems;

    bool operator==(const Printed&) const = default;
};

void PrintTo(const Printed& printed, std::ostream* stream) {
    *stream << "output:\n" << printed.output << "problems:\n" << printed.problems;
}

template <typename Action>
Printed printedBy(Action&& action) {
    const CapturedStream output(STDOUT_FILENO);
    const CapturedStream problems(STDERR_FILENO);
    action();
    return {output.text(), problems.text()};
}

class CollectorTargetPackageTest : public AuditedTest {
protected:
    /// Writes an executable below the temporary directory.
    std::string executable(const std::string& name, const std::string& content) const {
        const std::string path = directory.write(name, content);
        fs::permissions(path, fs::perms(0755));
        return path;
    }

    /// Writes the executable where packages have it, with a collector that prints `output`.
    std::string installed(const std::string& output) const {
        return executable("target/package/bin/kolvan-trcap",
                          "#!/bin/sh\ncat <<'END_OF_OUTPUT'\n" + output + "\nEND_OF_OUTPUT\n");
    }

    std::unique_ptr<Collector> collectorAt(const std::string& place) const {
        const CapturedStream output(STDOUT_FILENO);
        const CapturedStream problems(STDERR_FILENO);
        return std::make_unique<Collector>(place);
    }

    std::unique_ptr<Collector> collector() const { return collectorAt(target); }

    /// Version that a collector with this output has.
    std::string versionFor(const std::string& output) const {
        (void)installed(output);
        return collector()->version();
    }

    static std::string foundLines(const std::string& executablePath,
                                  const std::string& packageDirectory) {
        return "kolvan-trcap is found at " + executablePath +
               "\nTarget package directory: " + packageDirectory + "\n";
    }

    static std::string notFoundLine(const std::string& place) {
        return "kolvan-trcap is not found in " + place + "\n";
    }

    /// Moves the installed package away and leaves a link to it: the executable is still there
    /// under its old path, but a search does not find it any more.
    void hidePackageBehindALink() const {
        fs::rename(target + "/package", directory.entry("moved"));
        fs::create_directory_symlink(directory.entry("moved"), target + "/package");
    }

    void admitEverybody() const { fs::permissions(directory.path(), fs::perms::all); }

    const kolvan::test::TemporaryDirectory directory;
    const std::string target = directory.entry("target");
    const std::string executablePath = target + "/package/bin/kolvan-trcap";
};

// Construction.

TEST_F(CollectorTargetPackageTest, MissingLocationIsCreatedWithItsParents) {
    const std::string deep = directory.entry("a/b/c/target");

    EXPECT_EQ((Printed{"", notFoundLine(deep)}), printedBy([&] { const Collector made(deep); }));

    EXPECT_TRUE(fs::is_directory(deep));
    EXPECT_TRUE(fs::is_empty(deep));
}

TEST_F(CollectorTargetPackageTest, ExistingLocationIsLeftAsItIs) {
    const std::string file = directory.write("target/x64.tar.gz", "archive");
    const auto before = fs::last_write_time(target);

    EXPECT_EQ((Printed{"", notFoundLine(target)}),
              printedBy([&] { const Collector made(target); }));

    EXPECT_EQ("archive", kolvan::test::readFile(file));
    EXPECT_EQ(before, fs::last_write_time(target));
}

TEST_F(CollectorTargetPackageTest, InstalledCollectorIsFoundAtConstruction) {
    (void)installed("build 1");

    EXPECT_EQ((Printed{foundLines(executablePath, target + "/package"), ""}),
              printedBy([&] { const Collector made(target); }));
}

TEST_F(CollectorTargetPackageTest, LocationBelowAFileIsAFailureWithItsReason) {
    const std::string place = directory.write("file", "") + "/target";

    EXPECT_EQ("Failed to create directory '" + place +
                  "' for the target package: " + reasonAgainstDirectory(place),
              failureOf([&] { return collectorAt(place); }));
}

TEST_F(CollectorTargetPackageTest, DanglingLinkAsLocationIsAFailureWithItsReason) {
    fs::create_symlink("nowhere", target);

    EXPECT_EQ("Failed to create directory '" + target + "' for the target package: File exists",
              failureOf([&] { return collector(); }));
}

TEST_F(CollectorTargetPackageTest, ReadOnlyParentOfTheLocationIsAFailureWithItsReason) {
    fs::permissions(directory.path(), fs::perms(0555));

    EXPECT_EQ(
        "Failed to create directory '" + target + "' for the target package: Permission denied",
        inOwnProcess([&] {
            dropPrivileges();
            return failureOf([&] { return collector(); });
        }));
    fs::permissions(directory.path(), fs::perms(0755));
}

TEST_F(CollectorTargetPackageTest, LocationThatCannotBeExaminedIsTheFilesystemsFailure) {
    fs::create_symlink("target", target);

    EXPECT_EQ("filesystem error: Too many levels of symbolic links",
              failureOf([&] { return collector(); }));
}

TEST_F(CollectorTargetPackageTest, FileAsLocationIsTheFilesystemsFailure) {
    (void)directory.write("target", "");

    EXPECT_EQ("filesystem error: Not a directory", failureOf([&] { return collector(); }));
}

TEST_F(CollectorTargetPackageTest, UnreadableLocationIsTheFilesystemsFailure) {
    fs::create_directory(target);
    fs::permissions(target, fs::perms::none);
    admitEverybody();

    EXPECT_EQ("filesystem error: Permission denied", inOwnProcess([&] {
                  dropPrivileges();
                  return failureOf([&] { return collector(); });
              }));
    fs::permissions(target, fs::perms::owner_all);
}

// Location.

TEST_F(CollectorTargetPackageTest, PackageDirectoryIsTwoLevelsAboveTheExecutable) {
    const std::string direct = executable("target/kolvan-trcap", "");
    EXPECT_EQ((Printed{foundLines(direct, directory.path()), ""}),
              printedBy([&] { const Collector made(target); }));
    fs::remove(direct);

    const std::string oneDeep = executable("target/a/kolvan-trcap", "");
    EXPECT_EQ((Printed{foundLines(oneDeep, target), ""}),
              printedBy([&] { const Collector made(target); }));
    fs::remove(oneDeep);

    const std::string twoDeep = executable("target/a/b/kolvan-trcap", "");
    EXPECT_EQ((Printed{foundLines(twoDeep, target + "/a"), ""}),
              printedBy([&] { const Collector made(target); }));
}

TEST_F(CollectorTargetPackageTest, ExecutableThreeDirectoriesDeepIsNotFound) {
    (void)executable("target/a/b/c/kolvan-trcap", collectorScript("1"));

    EXPECT_EQ((Printed{"", notFoundLine(target)}),
              printedBy([&] { const Collector made(target); }));
    EXPECT_EQ("", collector()->version());
}

TEST_F(CollectorTargetPackageTest, LocateTellsWhetherThereIsACollector) {
    const auto located = collector();
    bool before = true;
    bool after = false;

    const Printed failure = printedBy([&] { before = located->locate(); });
    (void)installed("build 1");
    const Printed success = printedBy([&] { after = located->locate(); });

    EXPECT_FALSE(before);
    EXPECT_EQ((Printed{"", notFoundLine(target)}), failure);
    EXPECT_TRUE(after);
    EXPECT_EQ((Printed{foundLines(executablePath, target + "/package"), ""}), success);
}

TEST_F(CollectorTargetPackageTest, FailedSearchForgetsNothing) {
    (void)installed("build 77");
    const auto located = collector();
    hidePackageBehindALink();
    bool found = true;

    EXPECT_EQ((Printed{"", notFoundLine(target)}), printedBy([&] { found = located->locate(); }));

    EXPECT_FALSE(found);
    EXPECT_EQ("77", located->version());
}

TEST_F(CollectorTargetPackageTest, LaterSearchReplacesWhatWasFound) {
    (void)installed("build 77");
    const auto located = collector();
    fs::remove_all(target + "/package");
    const std::string other = executable("target/other/bin/kolvan-trcap", collectorScript("88"));

    EXPECT_EQ((Printed{foundLines(other, target + "/other"), ""}),
              printedBy([&] { (void)located->locate(); }));

    EXPECT_EQ("88", located->version());
}

// Version.

TEST_F(CollectorTargetPackageTest, VersionIsTheBuildAmongSeveralLines) {
    EXPECT_EQ("612345", versionFor("Collector 2.0\nCopyright\n\nbuild 612345\nAll rights\n"));
}

TEST_F(CollectorTargetPackageTest, VersionMayHaveTextAroundItOnItsLine) {
    EXPECT_EQ("612345", versionFor("collector (build 612345, release)"));
}

TEST_F(CollectorTargetPackageTest, LastBuildCounts) {
    EXPECT_EQ("333", versionFor("build 111 build 222\nrebuild 333"));
}

TEST_F(CollectorTargetPackageTest, BuildWithoutDigitsAfterItIsPassedOver) {
    EXPECT_EQ("111", versionFor("build 111\nbuild number\nbuild"));
}

TEST_F(CollectorTargetPackageTest, WhiteSpaceBeforeTheDigitsIsAnyAndAnyLength) {
    EXPECT_EQ("42", versionFor("build \t\n \n42x"));
}

TEST_F(CollectorTargetPackageTest, LeadingZerosAreKept) {
    EXPECT_EQ("00042", versionFor("build 00042"));
}

TEST_F(CollectorTargetPackageTest, LongOutputIsMatchedWhole) {
    std::string noise;
    for (int line = 0; line < 2000; ++line) {
        noise += "some build of a line without a number\n";
    }

    EXPECT_EQ("9", versionFor(noise + "build 9\n" + noise));
}

TEST_F(CollectorTargetPackageTest, OutputWithoutABuildHasNoVersion) {
    for (const char* output : {"", "612345", "build612345", "Build 612345", "BUILD 612345",
                               "build: 612345", "build number 612345", "buil d 5"}) {
        EXPECT_EQ("", versionFor(output)) << output;
    }
}

TEST_F(CollectorTargetPackageTest, VersionIsAskedForWithOneArgument) {
    (void)executable("target/package/bin/kolvan-trcap",
                     "#!/bin/sh\n[ \"$#$1\" = 1--version ] && echo build 5\nexit 9\n");

    EXPECT_EQ("5", collector()->version());
}

TEST_F(CollectorTargetPackageTest, VersionOnStandardErrorDoesNotCount) {
    (void)executable("target/package/bin/kolvan-trcap", "#!/bin/sh\necho build 5 >&2\n");
    const auto located = collector();
    std::string version = "unknown";

    EXPECT_EQ((Printed{"", "build 5\n"}), printedBy([&] { version = located->version(); }));

    EXPECT_EQ("", version);
}

TEST_F(CollectorTargetPackageTest, NothingInstalledHasNoVersionAndPrintsNothing) {
    const auto located = collector();
    std::string version = "unknown";

    EXPECT_EQ((Printed{"", ""}), printedBy([&] { version = located->version(); }));

    EXPECT_EQ("", version);
}

TEST_F(CollectorTargetPackageTest, VanishedExecutableHasNoVersionAndPrintsNothing) {
    const std::string file = installed("build 5");
    const auto located = collector();
    fs::remove(file);
    std::string version = "unknown";

    EXPECT_EQ((Printed{"", ""}), printedBy([&] { version = located->version(); }));

    EXPECT_EQ("", version);
}

TEST_F(CollectorTargetPackageTest, ExecutableWithoutTheRunBitHasNoVersion) {
    fs::permissions(installed("build 5"), fs::perms(0644));
    const auto located = collector();
    std::string version = "unknown";

    (void)printedBy([&] { version = located->version(); });

    EXPECT_EQ("", version);
}

TEST_F(CollectorTargetPackageTest, BlanksAndShellCharactersInTheLocationDoNoHarm) {
    const std::string place = "it's my \"target\" $HOME; exit `exit` & (x)";
    (void)executable(place + "/package/bin/kolvan-trcap", collectorScript("612345"));

    EXPECT_EQ("612345", collectorAt(directory.entry(place))->version());
}

TEST_F(CollectorTargetPackageTest, ExecutableThatCannotBeExaminedIsTheFilesystemsFailure) {
    (void)installed("build 5");
    admitEverybody();

    EXPECT_EQ("filesystem error: Permission denied, filesystem error: Permission denied",
              inOwnProcess([&] {
                  const auto located = collector();
                  fs::permissions(target + "/package", fs::perms::none);
                  dropPrivileges();
                  return failureOf([&] { return located->version(); }) + ", " +
                         failureOf([&] { return located->uninstall(); });
              }));
    fs::permissions(target + "/package", fs::perms(0755));
}

// Installation.

class CollectorInstallTest : public CollectorTargetPackageTest {
protected:
    std::string archived(const std::string& bytes) const {
        return directory.write("target/x64.tar.gz", bytes);
    }

    std::string extractingLine(const std::string& archive) const {
        return "Extracting " + archive + " to " + target + "\n";
    }
};

TEST_F(CollectorInstallTest, PackageIsExtractedIntoTheLocationAndFound) {
    const std::string archive = archived(packageWith(collectorScript("612345")));
    const auto installing = collector();
    bool succeeded = false;

    EXPECT_EQ(
        (Printed{extractingLine(archive) + foundLines(executablePath, target + "/package"), ""}),
        printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_TRUE(succeeded);
    EXPECT_EQ("612345", installing->version());
    EXPECT_TRUE(fs::exists(archive));
}

TEST_F(CollectorInstallTest, ArchiveWithAbsoluteNamesIsExtractedBelowTheLocation) {
    const std::string archive = archived(
        ArchiveBuilder().file("/package/bin/kolvan-trcap", collectorScript("5"), 0755).bytes());
    const auto installing = collector();
    bool succeeded = false;

    (void)printedBy([&] { succeeded = installing->install(archive); });

    EXPECT_TRUE(succeeded);
    EXPECT_TRUE(fs::exists(executablePath));
}

TEST_F(CollectorInstallTest, ArchiveWithoutACollectorFails) {
    const std::string archive =
        archived(ArchiveBuilder().file("package/bin/other", "content").bytes());
    const auto installing = collector();
    bool succeeded = true;

    EXPECT_EQ((Printed{extractingLine(archive), notFoundLine(target)}),
              printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, CollectorOneDirectoryTooDeepFails) {
    const std::string archive =
        archived(ArchiveBuilder().file("a/b/c/kolvan-trcap", collectorScript("5"), 0755).bytes());
    const auto installing = collector();
    bool succeeded = true;

    EXPECT_EQ((Printed{extractingLine(archive), notFoundLine(target)}),
              printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, ArchiveThatCannotBeOpenedFailsAndTheCollectorIsLookedForAllTheSame) {
    const std::string missing = target + "/missing";
    const auto installing = collector();
    bool succeeded = true;

    EXPECT_EQ((Printed{extractingLine(missing),
                       "Failed to open '" + missing + "'" + notFoundLine(target)}),
              printedBy([&] { succeeded = installing->install(missing); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, FailedExtractionFailsAlthoughACollectorIsFoundAfterwards) {
    const std::string archive = archived("<html>Not Found</html>");
    (void)installed("build 5");
    const auto installing = collector();
    bool succeeded = true;

    EXPECT_EQ((Printed{extractingLine(archive) + foundLines(executablePath, target + "/package"),
                       "Unrecognized archive format"}),
              printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, CollectorOfATruncatedArchiveIsFoundButDoesNotCount) {
    const std::string archive =
        archived(kolvan::test::truncated(ArchiveBuilder()
                                             .file("package/bin/kolvan-trcap", "x", 0755)
                                             .file("package/big", kolvan::test::noise(300000))
                                             .bytes()));
    const auto installing = collector();
    bool succeeded = true;

    EXPECT_EQ(
        (Printed{extractingLine(archive) + foundLines(executablePath, target + "/package"), "\n"}),
        printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, CollectorThatWasFoundBeforeCountsWhileItExists) {
    (void)installed("build 5");
    const auto installing = collector();
    hidePackageBehindALink();
    const std::string archive = archived(ArchiveBuilder().file("readme", "content").bytes());
    bool succeeded = false;

    EXPECT_EQ((Printed{extractingLine(archive), notFoundLine(target)}),
              printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_TRUE(succeeded);
}

TEST_F(CollectorInstallTest, CollectorThatWasFoundBeforeAndVanishedDoesNotCount) {
    const std::string file = installed("build 5");
    const auto installing = collector();
    fs::remove(file);
    const std::string archive = archived(ArchiveBuilder().file("readme", "content").bytes());
    bool succeeded = true;

    EXPECT_EQ((Printed{extractingLine(archive), notFoundLine(target)}),
              printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, AnyEntryWithTheNameOfTheExecutableCounts) {
    const std::string archive =
        archived(ArchiveBuilder().directory("package/bin/kolvan-trcap/").bytes());
    const auto installing = collector();
    bool succeeded = false;

    (void)printedBy([&] { succeeded = installing->install(archive); });

    EXPECT_TRUE(succeeded);
}

TEST_F(CollectorInstallTest, DanglingLinkWithTheNameOfTheExecutableDoesNotExist) {
    const std::string archive =
        archived(ArchiveBuilder().symbolicLink("package/bin/kolvan-trcap", "nowhere").bytes());
    const auto installing = collector();
    bool succeeded = true;

    EXPECT_EQ(
        (Printed{extractingLine(archive) + foundLines(executablePath, target + "/package"), ""}),
        printedBy([&] { succeeded = installing->install(archive); }));

    EXPECT_FALSE(succeeded);
}

TEST_F(CollectorInstallTest, ExecutableThatCannotBeExaminedIsTheFilesystemsFailure) {
    (void)installed("build 5");
    const auto installing = collector();
    fs::remove_all(target + "/package");
    fs::create_directory_symlink("package", target + "/package");
    const std::string archive = archived(ArchiveBuilder().file("readme", "content").bytes());
    std::string failure;

    EXPECT_EQ((Printed{extractingLine(archive), notFoundLine(target)}), printedBy([&] {
                  failure = failureOf([&] { return installing->install(archive); });
              }));

    EXPECT_EQ("filesystem error: Too many levels of symbolic links", failure);
}

TEST_F(CollectorInstallTest, NewPackageReplacesTheFilesOfTheOldOne) {
    (void)installed("build 5");
    const auto installing = collector();
    const std::string archive = archived(packageWith(collectorScript("612345")));
    bool succeeded = false;

    (void)printedBy([&] { succeeded = installing->install(archive); });

    EXPECT_TRUE(succeeded);
    EXPECT_EQ("612345", installing->version());
}

// Removal.

class CollectorUninstallTest : public CollectorTargetPackageTest {
protected:
    /// Lines of an uninstallation that must succeed.
    static Printed uninstall(Collector& installed) {
        bool succeeded = false;
        const Printed printed = printedBy([&] { succeeded = installed.uninstall(); });
        EXPECT_TRUE(succeeded);
        return printed;
    }

    static Printed uninstalling(const std::string& packageDirectory) {
        return {"Uninstalling existing target package at " + packageDirectory + "\n", ""};
    }
};

TEST_F(CollectorUninstallTest, NothingInstalledPrintsNothing) {
    EXPECT_EQ((Printed{"", ""}), uninstall(*collector()));
    EXPECT_TRUE(fs::is_directory(target));
}

TEST_F(CollectorUninstallTest, PackageIsRemovedAndNothingElse) {
    (void)installed("build 5");
    (void)directory.write("target/package/lib/deep/library", "");
    (void)directory.write("target/x64.tar.gz", "archive");
    (void)directory.write("target/other/file", "");

    EXPECT_EQ(uninstalling(target + "/package"), uninstall(*collector()));

    EXPECT_FALSE(fs::exists(target + "/package"));
    EXPECT_TRUE(fs::exists(target + "/x64.tar.gz"));
    EXPECT_TRUE(fs::exists(target + "/other/file"));
}

TEST_F(CollectorUninstallTest, LinksInThePackageAreRemovedAndNotFollowed) {
    (void)installed("build 5");
    const std::string kept = directory.write("elsewhere/kept", "");
    fs::create_directory_symlink(directory.entry("elsewhere"), target + "/package/link");

    EXPECT_EQ(uninstalling(target + "/package"), uninstall(*collector()));

    EXPECT_FALSE(fs::exists(target + "/package"));
    EXPECT_TRUE(fs::exists(kept));
}

TEST_F(CollectorUninstallTest, ExecutableOneDirectoryDeepTakesTheLocationAlong) {
    (void)executable("nested/target/bin/kolvan-trcap", collectorScript("5"));
    const std::string place = directory.entry("nested/target");

    EXPECT_EQ(uninstalling(place), uninstall(*collectorAt(place)));

    EXPECT_FALSE(fs::exists(place));
    EXPECT_TRUE(fs::exists(directory.entry("nested")));
}

TEST_F(CollectorUninstallTest, ExecutableInTheLocationTakesItsParentAlong) {
    (void)executable("nested/target/kolvan-trcap", collectorScript("5"));
    (void)directory.write("nested/beside", "");
    const std::string kept = directory.write("kept", "");

    EXPECT_EQ(uninstalling(directory.entry("nested")),
              uninstall(*collectorAt(directory.entry("nested/target"))));

    EXPECT_FALSE(fs::exists(directory.entry("nested")));
    EXPECT_TRUE(fs::exists(kept));
}

TEST_F(CollectorUninstallTest, SecondRemovalFindsNothingAndPrintsNothing) {
    (void)installed("build 5");
    const auto removing = collector();
    (void)uninstall(*removing);

    EXPECT_EQ((Printed{"", ""}), uninstall(*removing));
    EXPECT_EQ("", removing->version());
}

TEST_F(CollectorUninstallTest, RemovalForgetsNothing) {
    (void)installed("build 5");
    const auto removing = collector();
    (void)uninstall(*removing);
    (void)installed("build 6");

    EXPECT_EQ("6", removing->version());
    EXPECT_EQ(uninstalling(target + "/package"), uninstall(*removing));
}

TEST_F(CollectorUninstallTest, VanishedExecutableLeavesThePackageAlone) {
    const std::string file = installed("build 5");
    const std::string other = directory.write("target/package/lib/library", "");
    const auto removing = collector();
    fs::remove(file);

    EXPECT_EQ((Printed{"", ""}), uninstall(*removing));

    EXPECT_TRUE(fs::exists(other));
}

TEST_F(CollectorUninstallTest, RemovalThatFailsIsTheFilesystemsFailure) {
    (void)installed("build 5");
    fs::permissions(target + "/package/bin", fs::perms(0555));
    admitEverybody();

    EXPECT_EQ("filesystem error: Permission denied", inOwnProcess([&] {
                  dropPrivileges();
                  const auto removing = collector();
                  const CapturedStream output(STDOUT_FILENO);
                  return failureOf([&] { return removing->uninstall(); });
              }));
    EXPECT_TRUE(fs::exists(executablePath));
    fs::permissions(target + "/package/bin", fs::perms::owner_all);
}

// Lines beside those of others.

/// Stands in for standard output, where a rival has a word whenever somebody's piece is complete.
class RivalledOutput : private std::streambuf {
public:
    RivalledOutput() : original(std::cout.rdbuf(this)) {}
    ~RivalledOutput() override { std::cout.rdbuf(original); }
    RivalledOutput(const RivalledOutput&) = delete;
    RivalledOutput& operator=(const RivalledOutput&) = delete;

    const std::string& text() const { return written; }

private:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        written.append(text, static_cast<std::size_t>(length)) += "rival\n";
        return length;
    }
    int_type overflow(int_type character) override {
        written.append(1, traits_type::to_char_type(character)) += "rival\n";
        return character;
    }

    std::streambuf* original;
    std::string written;
};

TEST_F(CollectorTargetPackageTest, EachLineOfOutputIsOnePiece) {
    (void)installed("build 5");
    const std::string archive =
        ArchiveBuilder().file("package/bin/kolvan-trcap", "x", 0755).write(target + "/archive");
    std::string printed;
    {
        const RivalledOutput output;
        Collector made(target);
        (void)made.uninstall();
        (void)made.install(archive);
        printed = output.text();
    }

    const std::string found = "kolvan-trcap is found at " + executablePath +
                              "\nrival\nTarget package directory: " + target + "/package\nrival\n";
    EXPECT_EQ(found + "Uninstalling existing target package at " + target + "/package\nrival\n" +
                  "Extracting " + archive + " to " + target + "\nrival\n" + found,
              printed);
}

}  // namespace
}  // namespace cagnt1::operations
