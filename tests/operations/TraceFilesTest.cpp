#include "operations/TraceFiles.h"

#include "tests/operations/AuditedTest.h"
#include "tests/operations/Failure.h"
#include "tests/operations/OwnProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <utility>

#include <sys/stat.h>

namespace cagnt1::operations {
namespace {

namespace fs = std::filesystem;
using Listing = std::vector<std::pair<std::string, std::string>>;

class TraceFilesTest : public AuditedTest {
protected:
    void SetUp() override {
        if (directory.path().string().find("data") != std::string::npos) {
            GTEST_SKIP() << "every file qualifies below " << directory.path();
        }
        fs::create_directory(result);
    }

    /// Files, relative to the result directory, with their remote directories; sorted.
    Listing listing() const {
        Listing found;
        for (const TraceFile& file : findTraceFiles(result)) {
            EXPECT_EQ(result + "/", file.filePath.substr(0, result.size() + 1));
            found.emplace_back(file.filePath.substr(result.size() + 1), file.relativeDirectory);
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    void link(const std::string& target, const std::string& name) const {
        fs::create_symlink(target, directory.path() / "result" / name);
    }

    const kolvan::test::TemporaryDirectory directory;
    const std::string result = directory.entry("result");
};

TEST_F(TraceFilesTest, EmptyResultDirectoryHasNone) {
    EXPECT_EQ(Listing{}, listing());
}

TEST_F(TraceFilesTest, FileInASubdirectoryIsListedWithItsDirectory) {
    (void)directory.write("result/data.0/sub/trace", "");

    EXPECT_EQ((Listing{{"data.0/sub/trace", "data.0/sub"}}), listing());
}

TEST_F(TraceFilesTest, FileOfTheResultDirectoryItselfHasAnEmptyDirectory) {
    (void)directory.write("result/data.trace", "");

    EXPECT_EQ((Listing{{"data.trace", ""}}), listing());
}

TEST_F(TraceFilesTest, FilesWithoutDataInTheirPathAreNotListed) {
    (void)directory.write("result/config/trcap_remote.options", "");
    (void)directory.write("result/log", "");
    (void)directory.write("result/Data/DATA", "");
    (void)directory.write("result/dat/a", "");

    EXPECT_EQ(Listing{}, listing());
}

TEST_F(TraceFilesTest, DataCountsAnywhereInThePath) {
    (void)directory.write("result/a/b/metadata.x", "");
    (void)directory.write("result/database/c/d", "");
    (void)directory.write("result/xdatax", "");

    EXPECT_EQ((Listing{{"a/b/metadata.x", "a/b"}, {"database/c/d", "database/c"}, {"xdatax", ""}}),
              listing());
}

TEST_F(TraceFilesTest, DataInThePathOfTheResultDirectoryMakesEveryFileQualify) {
    (void)directory.write("my-data-disk/1a2b/config/trcap_remote.options", "");
    const std::string other = directory.entry("my-data-disk/1a2b");

    const std::vector<TraceFile> files = findTraceFiles(other);

    ASSERT_EQ(1U, files.size());
    EXPECT_EQ(other + "/config/trcap_remote.options", files[0].filePath);
    EXPECT_EQ("config", files[0].relativeDirectory);
}

TEST_F(TraceFilesTest, DirectoriesAreNeverListed) {
    fs::create_directories(directory.path() / "result/data.0/data.1");

    EXPECT_EQ(Listing{}, listing());
}

TEST_F(TraceFilesTest, LinksToFilesAreListed) {
    (void)directory.write("result/log", "content");
    link("log", "data.link");

    EXPECT_EQ((Listing{{"data.link", ""}}), listing());
}

TEST_F(TraceFilesTest, LinksToDirectoriesAreNeitherFollowedNorListed) {
    (void)directory.write("elsewhere/data.trace", "");
    link("../elsewhere", "data.link");
    link(".", "data.circle");

    EXPECT_EQ(Listing{}, listing());
}

TEST_F(TraceFilesTest, DanglingLinksAreListed) {
    link("nowhere", "data.link");

    EXPECT_EQ((Listing{{"data.link", ""}}), listing());
}

TEST_F(TraceFilesTest, PipesAreListed) {
    ASSERT_EQ(0, ::mkfifo((result + "/data.pipe").c_str(), 0600));

    EXPECT_EQ((Listing{{"data.pipe", ""}}), listing());
}

TEST_F(TraceFilesTest, NamesAreBytes) {
    (void)directory.write("result/data\n1/new\nline", "");
    (void)directory.write("result/data \"'$;\\/ x", "");
    (void)directory.write("result/data\xff\xfe/\x80", "");

    EXPECT_EQ((Listing{{"data\n1/new\nline", "data\n1"},
                       {"data \"'$;\\/ x", "data \"'$;\\"},
                       {"data\xff\xfe/\x80", "data\xff\xfe"}}),
              listing());
}

TEST_F(TraceFilesTest, HiddenAndEmptyFilesAreListed) {
    (void)directory.write("result/.data/..x", "");

    EXPECT_EQ((Listing{{".data/..x", ".data"}}), listing());
}

TEST_F(TraceFilesTest, EveryOneOfManyFilesIsListedOnce) {
    Listing expected;
    for (int part = 0; part < 5; ++part) {
        const std::string name = "data." + std::to_string(part);
        fs::create_directory(result + "/" + name);
        for (int number = 0; number < 1000; ++number) {
            expected.emplace_back(name + "/" + std::to_string(number), name);
            std::ofstream(result + "/" + expected.back().first);
        }
    }
    std::sort(expected.begin(), expected.end());

    EXPECT_EQ(expected, listing());
}

TEST_F(TraceFilesTest, StatusThatCannotBeReadIsAFailure) {
    link("data.loop", "data.loop");

    EXPECT_EQ("filesystem error: Too many levels of symbolic links",
              failureOf([&] { return findTraceFiles(result); }));
}

TEST_F(TraceFilesTest, MissingResultDirectoryIsAFailure) {
    EXPECT_EQ("filesystem error: No such file or directory",
              failureOf([&] { return findTraceFiles(result + "/missing"); }));
}

TEST_F(TraceFilesTest, UnreadableDirectoryIsAFailure) {
    fs::create_directory(result + "/closed");

    EXPECT_EQ("filesystem error: Permission denied", inOwnProcess([&] {
                  ::chmod(directory.path().c_str(), 0755);
                  ::chmod((result + "/closed").c_str(), 0);
                  dropPrivileges();
                  return failureOf([&] { return findTraceFiles(result); });
              }));
    fs::permissions(result + "/closed", fs::perms::owner_all);
}

}  // namespace
}  // namespace cagnt1::operations
