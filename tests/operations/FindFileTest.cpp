#include "operations/FindFile.h"

#include "tests/operations/AuditedTest.h"
#include "tests/operations/Failure.h"
#include "tests/operations/OwnProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>

#include <sys/stat.h>

namespace cagnt1::operations {
namespace {

class FindFileTest : public AuditedTest {
protected:
    std::string find(int maxDepth) const {
        return findFile(directory.path(), "kolvan-trcap", maxDepth);
    }

    const kolvan::test::TemporaryDirectory directory;
};

TEST_F(FindFileTest, FindsADirectEntryAtDepthZero) {
    const std::string file = directory.write("kolvan-trcap", "");

    EXPECT_EQ(file, find(0));
    EXPECT_EQ(file, find(2));
}

TEST_F(FindFileTest, FindsAnEntryOneDirectoryDeep) {
    const std::string file = directory.write("a/kolvan-trcap", "");

    EXPECT_EQ("", find(0));
    EXPECT_EQ(file, find(1));
    EXPECT_EQ(file, find(2));
}

TEST_F(FindFileTest, FindsAnEntryTwoDirectoriesDeep) {
    const std::string file = directory.write("a/b/kolvan-trcap", "");

    EXPECT_EQ("", find(1));
    EXPECT_EQ(file, find(2));
}

TEST_F(FindFileTest, DoesNotFindAnEntryBelowTheDepth) {
    const std::string file = directory.write("a/b/c/kolvan-trcap", "");

    EXPECT_EQ("", find(2));
    EXPECT_EQ(file, find(3));
}

TEST_F(FindFileTest, GoesOnAfterBranchesThatAreTooDeep) {
    (void)directory.write("a/b/c/kolvan-trcap", "");
    (void)directory.write("d/e/f/kolvan-trcap", "");
    const std::string file = directory.write("g/h/kolvan-trcap", "");

    EXPECT_EQ(file, find(2));
}

TEST_F(FindFileTest, NameIsComparedWholeAndExactly) {
    for (const char* name : {"Kolvan-trcap", "kolvan-trcap.exe", "kolvan-trca", "xkolvan-trcap"}) {
        (void)directory.write(name, "");
    }

    EXPECT_EQ("", find(2));
}

TEST_F(FindFileTest, EmptyDirectoryHasNoMatch) {
    EXPECT_EQ("", find(2));
}

TEST_F(FindFileTest, DirectoryMatches) {
    std::filesystem::create_directories(directory.path() / "a/kolvan-trcap");

    EXPECT_EQ(directory.entry("a/kolvan-trcap"), find(2));
}

TEST_F(FindFileTest, DanglingLinkMatches) {
    std::filesystem::create_symlink("nowhere", directory.path() / "kolvan-trcap");

    EXPECT_EQ(directory.entry("kolvan-trcap"), find(2));
}

TEST_F(FindFileTest, LinkToADirectoryMatches) {
    std::filesystem::create_directory(directory.path() / "other");
    std::filesystem::create_directory_symlink("other", directory.path() / "kolvan-trcap");

    EXPECT_EQ(directory.entry("kolvan-trcap"), find(2));
}

TEST_F(FindFileTest, PipeMatches) {
    ASSERT_EQ(0, ::mkfifo(directory.entry("kolvan-trcap").c_str(), 0600));

    EXPECT_EQ(directory.entry("kolvan-trcap"), find(2));
}

TEST_F(FindFileTest, LinksToDirectoriesAreNotFollowed) {
    const kolvan::test::TemporaryDirectory elsewhere;
    (void)elsewhere.write("kolvan-trcap", "");
    std::filesystem::create_directory_symlink(elsewhere.path(), directory.path() / "link");
    std::filesystem::create_directory_symlink(".", directory.path() / "circle");

    EXPECT_EQ("", find(2));
}

TEST_F(FindFileTest, DirectoryMayBeALinkItself) {
    (void)directory.write("real/a/kolvan-trcap", "");
    std::filesystem::create_directory_symlink("real", directory.path() / "link");

    EXPECT_EQ(directory.entry("link/a/kolvan-trcap"),
              findFile(directory.entry("link"), "kolvan-trcap", 2));
}

/// The first match in the order in which the system lists entries.
std::string firstInSystemsOrder(const std::string& place) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(place)) {
        if (entry.path().filename() == "kolvan-trcap") {
            return entry.path();
        }
    }
    return "";
}

// No order that a search may have of its own, by name or by age, is the system's in every round.
TEST_F(FindFileTest, OfSeveralMatchesTheFirstInTheSystemsOrderIsReturned) {
    for (int round = 0; round < 20; ++round) {
        const std::string place = "place" + std::to_string(round);
        for (const char* name : {"d", "a", "h", "c", "g", "b", "f", "e"}) {
            const std::string parent = place + "/" + name + std::to_string(round);
            (void)directory.write(parent + "/kolvan-trcap", "");
            (void)directory.write(parent + "/x/kolvan-trcap", "");
        }

        EXPECT_EQ(firstInSystemsOrder(directory.entry(place)),
                  findFile(directory.entry(place), "kolvan-trcap", 2));
    }
}

TEST_F(FindFileTest, MissingDirectoryIsAFailure) {
    EXPECT_EQ("filesystem error: No such file or directory",
              failureOf([&] { return findFile(directory.entry("missing"), "kolvan-trcap", 2); }));
}

TEST_F(FindFileTest, FileInPlaceOfTheDirectoryIsAFailure) {
    const std::string file = directory.write("file", "");

    EXPECT_EQ("filesystem error: Not a directory",
              failureOf([&] { return findFile(file, "kolvan-trcap", 2); }));
}

TEST_F(FindFileTest, UnreadableDirectoryIsAFailure) {
    std::filesystem::create_directory(directory.path() / "closed");

    EXPECT_EQ("filesystem error: Permission denied", inOwnProcess([&] {
                  ::chmod(directory.path().c_str(), 0755);
                  ::chmod(directory.entry("closed").c_str(), 0);
                  dropPrivileges();
                  return failureOf([&] { return find(2); });
              }));
    std::filesystem::permissions(directory.path() / "closed", std::filesystem::perms::owner_all);
}

TEST_F(FindFileTest, UnreadableDirectoryBelowTheDepthIsNotLookedInto) {
    std::filesystem::create_directories(directory.path() / "a/b/closed");

    EXPECT_EQ("no failure", inOwnProcess([&] {
                  ::chmod(directory.path().c_str(), 0755);
                  ::chmod(directory.entry("a/b/closed").c_str(), 0);
                  dropPrivileges();
                  return failureOf([&] { return find(2); });
              }));
    std::filesystem::permissions(directory.path() / "a/b/closed",
                                 std::filesystem::perms::owner_all);
}

}  // namespace
}  // namespace cagnt1::operations
