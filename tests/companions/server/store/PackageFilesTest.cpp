#include "companions/server/store/PackageFiles.h"

#include "tests/companions/server/store/StoreTest.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kolvan::server {
namespace {

namespace fs = std::filesystem;

class PackageFilesTest : public StoreTest {
protected:
    PackageFilesTest() { fs::create_directory(packages); }

    Package add(const std::string& name, const std::string& content,
                PackageArchitecture architecture = PackageArchitecture::X64) {
        return addPackage(store->packages(), packages, architecture,
                          directory.write("from/" + name, content));
    }

    std::ptrdiff_t files() const {
        return std::distance(fs::directory_iterator(packages), fs::directory_iterator());
    }

    const std::string packages = directory.entry("packages");
};

TEST_F(PackageFilesTest, ArchiveIsCopiedWhole) {
    const std::string content(200'001, 'a');

    const Package package = add("agent.tar.gz", content);

    EXPECT_EQ("agent.tar.gz", package.name);
    EXPECT_EQ(content.size(), package.sizeBytes);
    EXPECT_EQ(sha256(content), package.hash);
    EXPECT_EQ(clock.utc(), package.added);
    EXPECT_EQ(content, test::readFile(fileOf(package, packages)));
    EXPECT_EQ(package.hash, store->packages().find("agent.tar.gz")->hash);
    EXPECT_EQ(fs::perms(0600), fs::status(fileOf(package, packages)).permissions());
}

TEST_F(PackageFilesTest, NewOneOfTheSameNameTakesThePlaceAndReadersReadOn) {
    const Package old = add("agent.tar.gz", "old");
    std::ifstream reader(fileOf(old, packages));

    const Package fresh = add("agent.tar.gz", "new");

    EXPECT_EQ("new", test::readFile(fileOf(fresh, packages)));
    std::string read;
    reader >> read;
    EXPECT_EQ("old", read);
    EXPECT_EQ(1, files());
}

TEST_F(PackageFilesTest, SameContentForBothArchitecturesIsOneFile) {
    add("x86.tar.gz", "same", PackageArchitecture::X86);
    const Package x64 = add("x64.tar.gz", "same", PackageArchitecture::X64);
    EXPECT_EQ(1, files());

    add("x86.tar.gz", "other", PackageArchitecture::X86);

    EXPECT_EQ("same", test::readFile(fileOf(x64, packages)));
    EXPECT_EQ(2, files());
}

TEST_F(PackageFilesTest, AddingTheSameAgainKeepsIt) {
    add("agent.tar.gz", "same");

    const Package again = add("agent.tar.gz", "same");

    EXPECT_EQ("same", test::readFile(fileOf(again, packages)));
}

TEST_F(PackageFilesTest, NamesThatAgentsCannotAskForAreRefused) {
    for (const char* const name : {"a b.tar", ".hidden", "a&b", "ü.tar", "a%20b"}) {
        EXPECT_EQ(
            "'" + std::string(name) +
                "' is no name for a package: agents can ask for letters, digits, dots, dashes "
                "and underscores, with no dot in front",
            failureOf([&] { add(name, "x"); }));
    }
    EXPECT_EQ(0, files());
}

TEST_F(PackageFilesTest, ArchiveThatCannotBeReadLeavesNothing) {
    const std::string none = directory.entry("none.tar");

    EXPECT_EQ(none + ": No such file or directory", failureOf([&] {
                  addPackage(store->packages(), packages, PackageArchitecture::X64, none);
              }));
    EXPECT_EQ(packages + " is no file", failureOf([&] {
                  addPackage(store->packages(), packages, PackageArchitecture::X64, packages);
              }));

    EXPECT_EQ(0, files());
    EXPECT_TRUE(store->packages().list().empty());
}

}  // namespace
}  // namespace kolvan::server
