#include "companions/server/base/DataDirectory.h"

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

namespace kolvan::server {
namespace {

namespace fs = std::filesystem;

fs::perms rightsOf(const fs::path& path) {
    return fs::status(path).permissions();
}

TEST(DataDirectoryTest, EverythingThatIsMadeIsForItsUserAloneWhateverTheMask) {
    const test::TemporaryDirectory directory;
    const mode_t before = ::umask(0);

    const DataDirectory data(directory.path() / "a" / "b");

    EXPECT_EQ(fs::perms::owner_all, rightsOf(directory.path() / "a"));
    EXPECT_EQ(fs::perms::owner_all, rightsOf(data.path()));
    EXPECT_EQ(fs::perms::owner_all, rightsOf(data.packages()));
    EXPECT_EQ(fs::perms::owner_all, rightsOf(data.collections()));
    ::umask(before);
}

TEST(DataDirectoryTest, PathsAreAbsolute) {
    const test::TemporaryDirectory directory;
    const fs::path relative = fs::relative(directory.path() / "data");

    const DataDirectory data(relative / "." / "x" / "..");

    EXPECT_EQ(directory.path() / "data" / "kolvan.sqlite", data.database());
}

TEST(DataDirectoryTest, DirectoryThatIsThereIsTaken) {
    const test::TemporaryDirectory directory;
    (void)DataDirectory(directory.path() / "data").packages();

    EXPECT_TRUE(fs::exists(DataDirectory(directory.path() / "data").path() / "packages"));
}

TEST(DataDirectoryTest, OneBelowAFileCannotBeMade) {
    const test::TemporaryDirectory directory;
    const std::string file = directory.write("file", "");
    std::string failure;

    try {
        const DataDirectory data(fs::path(file) / "data");
    } catch (const std::runtime_error& error) {
        failure = error.what();
    }

    EXPECT_EQ("Failed to make the directory " + file + "/data: Not a directory", failure);
}

}  // namespace
}  // namespace kolvan::server
