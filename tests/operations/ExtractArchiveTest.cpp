#include "operations/ExtractArchive.h"

#include "basekit2/UniqueFd.h"
#include "tests/operations/AuditedTest.h"
#include "tests/operations/OwnProcess.h"
#include "tests/support/ArchiveBuilder.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace cagnt1::operations {
namespace {

namespace fs = std::filesystem;
using kolvan::test::ArchiveBuilder;
using kolvan::test::CapturedStream;
using kolvan::test::noise;
using kolvan::test::readFile;
using Format = ArchiveBuilder::Format;

/// Outcome of one extraction: its result and everything on standard error, where a later line is
/// written too.
struct Extraction {
    bool whole;
    std::string problems;

    bool operator==(const Extraction&) const = default;
};

void PrintTo(const Extraction& extraction, std::ostream* stream) {
    *stream << (extraction.whole ? "whole" : "failed") << ", problems:\n" << extraction.problems;
}

/// Gives the streams' state back, so that one silenced stream fails one test only.
class ClearedErrorStream {
public:
    ~ClearedErrorStream() { std::cerr.clear(); }
};

Extraction extract(const std::string& archive, const std::string& destination) {
    const ClearedErrorStream cleared;
    const CapturedStream captured(STDERR_FILENO);
    const bool whole = extractArchive(archive, destination);
    std::cerr << "later line\n";
    return {whole, captured.text()};
}

Extraction wholeWith(const std::string& problems) {
    return {true, problems + "later line\n"};
}

Extraction failedWith(const std::string& problems) {
    return {false, problems + "later line\n"};
}

std::string inWords(const Extraction& extraction) {
    return (extraction.whole ? "whole\n" : "failed\n") + extraction.problems;
}

std::string linkTarget(const std::string& path) {
    return fs::read_symlink(path);
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        throw std::runtime_error("no status of " + path);
    }
    return status;
}

constexpr const char* kAccessList = "system.posix_acl_access";

class ExtractArchiveTest : public AuditedTest {
protected:
    void SetUp() override { fs::create_directory(target); }

    std::string extractedFile(const std::string& name) const {
        return readFile(target + "/" + name);
    }

    Extraction extractBuilt(const ArchiveBuilder& builder) const {
        return extract(builder.write(archive), target);
    }

    Extraction extractBytes(const std::string& content) const {
        return extract(directory.write("archive", content), target);
    }

    /// Opens the test's directories to a process that has dropped its privileges.
    void admitEverybody() const {
        fs::permissions(directory.path(), fs::perms::all);
        fs::permissions(target, fs::perms::all);
    }

    /// Whether the disk of the tests keeps access lists.
    bool accessListsWork() const {
        return ::getxattr(target.c_str(), kAccessList, nullptr, 0) >= 0 || errno != EOPNOTSUPP;
    }

    const kolvan::test::TemporaryDirectory directory;
    const std::string archive = directory.entry("archive");
    const std::string target = directory.entry("target");
};

class ExtractArchiveFormatTest : public ExtractArchiveTest,
                                 public testing::WithParamInterface<Format> {};

TEST_P(ExtractArchiveFormatTest, FilesDirectoriesAndLinksArriveWhole) {
    const std::string big = noise(300000);
    const ArchiveBuilder builder = ArchiveBuilder(GetParam())
                                       .directory("package/")
                                       .file("package/bin/kolvan-trcap", "#!/bin/sh\n", 0755)
                                       .file("package/big", big, 0640)
                                       .file("package/empty", "")
                                       .symbolicLink("package/link", "bin/kolvan-trcap");

    EXPECT_EQ(wholeWith(""), extractBuilt(builder));

    EXPECT_EQ("#!/bin/sh\n", extractedFile("package/bin/kolvan-trcap"));
    EXPECT_EQ(0755U, statusOf(target + "/package/bin/kolvan-trcap").st_mode & 07777U);
    EXPECT_EQ(big, extractedFile("package/big"));
    EXPECT_EQ(0640U, statusOf(target + "/package/big").st_mode & 07777U);
    EXPECT_EQ("", extractedFile("package/empty"));
    EXPECT_EQ("bin/kolvan-trcap", linkTarget(target + "/package/link"));
}

TEST_P(ExtractArchiveFormatTest, TruncatedArchiveFails) {
    const std::string bytes = ArchiveBuilder(GetParam()).file("big", noise(300000)).bytes();

    EXPECT_FALSE(extractBytes(kolvan::test::truncated(bytes)).whole);
}

TEST_P(ExtractArchiveFormatTest, CorruptArchiveFails) {
    ArchiveBuilder builder(GetParam());
    for (int number = 0; number < 20; ++number) {
        builder.file("file" + std::to_string(number), noise(20000));
    }

    EXPECT_FALSE(extractBytes(kolvan::test::corrupted(builder.bytes())).whole);
}

TEST_P(ExtractArchiveFormatTest, WholeArchiveMendsWhatABrokenOneLeft) {
    const std::string big = noise(300000);
    const std::string bytes = ArchiveBuilder(GetParam()).file("package/big", big).bytes();
    ASSERT_FALSE(extractBytes(kolvan::test::truncated(bytes)).whole);

    EXPECT_EQ(wholeWith(""), extractBytes(bytes));

    EXPECT_EQ(big, extractedFile("package/big"));
}

TEST_P(ExtractArchiveFormatTest, AbsoluteNamesLandBelowTheDestination) {
    EXPECT_EQ(wholeWith(""),
              extractBuilt(ArchiveBuilder(GetParam()).file("/package/bin/file", "content")));

    EXPECT_EQ("content", extractedFile("package/bin/file"));
    EXPECT_FALSE(fs::exists("/package/bin/file"));
}

INSTANTIATE_TEST_SUITE_P(Formats, ExtractArchiveFormatTest,
                         testing::Values(Format::TarGz, Format::TarZst, Format::Zip,
                                         Format::SevenZip),
                         testing::PrintToStringParamName());

TEST_F(ExtractArchiveTest, DestinationMayEndInASeparator) {
    const std::string file = ArchiveBuilder().file("/a/file", "a").file("b", "b").write(archive);

    EXPECT_EQ(wholeWith(""), extract(file, target + "/"));

    EXPECT_EQ("a", extractedFile("a/file"));
    EXPECT_EQ("b", extractedFile("b"));
}

TEST_F(ExtractArchiveTest, MissingDestinationIsCreated) {
    const std::string file = ArchiveBuilder().file("a/file", "content").write(archive);

    EXPECT_EQ(wholeWith(""), extract(file, target + "/new/deeper"));

    EXPECT_EQ("content", extractedFile("new/deeper/a/file"));
}

TEST_F(ExtractArchiveTest, ParentComponentsOfNamesAreKept) {
    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder()
                                              .file("../outside", "outside")
                                              .directory("a/")
                                              .file("a/../inside", "inside")));

    EXPECT_EQ("outside", readFile(directory.entry("outside")));
    EXPECT_EQ("inside", extractedFile("inside"));
}

TEST_F(ExtractArchiveTest, EntriesAreWrittenThroughLinks) {
    fs::create_directory(directory.entry("elsewhere"));

    EXPECT_EQ(
        wholeWith(""),
        extractBuilt(
            ArchiveBuilder().symbolicLink("link", "../elsewhere").file("link/file", "content")));

    EXPECT_EQ("content", readFile(directory.entry("elsewhere/file")));
    EXPECT_EQ("../elsewhere", linkTarget(target + "/link"));
}

TEST_F(ExtractArchiveTest, ExistingFilesAreReplaced) {
    (void)directory.write("target/file", "a much longer text than the new one");
    (void)directory.write("victim", "kept");
    fs::create_symlink("../victim", target + "/link");

    EXPECT_EQ(wholeWith(""),
              extractBuilt(ArchiveBuilder().file("file", "new").file("link", "own")));

    EXPECT_EQ("new", extractedFile("file"));
    EXPECT_EQ("own", extractedFile("link"));
    EXPECT_EQ("kept", readFile(directory.entry("victim")));
}

TEST_F(ExtractArchiveTest, NewerFilesAreReplacedToo) {
    (void)directory.write("target/file", "made today");

    EXPECT_EQ(wholeWith(""),
              extractBuilt(ArchiveBuilder().file("file", "old").times({1000, 0}, {1000, 0})));

    EXPECT_EQ("old", extractedFile("file"));
}

TEST_F(ExtractArchiveTest, TimesAreRestored) {
    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder()
                                              .directory("directory/")
                                              .times({1111111111, 0}, {1234567890, 0})
                                              .file("directory/file", "content")
                                              .times({1300000000, 5}, {1400000000, 123456789})));

    const struct stat file = statusOf(target + "/directory/file");
    EXPECT_EQ(1300000000, file.st_atim.tv_sec);
    EXPECT_EQ(1400000000, file.st_mtim.tv_sec);
    EXPECT_EQ(123456789, file.st_mtim.tv_nsec);
    EXPECT_EQ(1234567890, statusOf(target + "/directory").st_mtim.tv_sec);
}

TEST_F(ExtractArchiveTest, PermissionsAreRestoredWhateverTheMask) {
    EXPECT_EQ("whole\nlater line\n", inOwnProcess([&] {
                  (void)::umask(0077);
                  return inWords(extractBuilt(ArchiveBuilder()
                                                  .directory("directory/", 0751)
                                                  .directory("sticky/", 01777)
                                                  .file("directory/tool", "x", 0755)
                                                  .file("directory/open", "x", 0666)
                                                  .file("directory/closed", "x", 0400)));
              }));

    EXPECT_EQ(0751U, statusOf(target + "/directory").st_mode & 07777U);
    EXPECT_EQ(01777U, statusOf(target + "/sticky").st_mode & 07777U);
    EXPECT_EQ(0755U, statusOf(target + "/directory/tool").st_mode & 07777U);
    EXPECT_EQ(0666U, statusOf(target + "/directory/open").st_mode & 07777U);
    EXPECT_EQ(0400U, statusOf(target + "/directory/closed").st_mode & 07777U);
}

TEST_F(ExtractArchiveTest, ReadOnlyDirectoriesAreFilledFirst) {
    admitEverybody();

    EXPECT_EQ("whole\nlater line\n", inOwnProcess([&] {
                  dropPrivileges();
                  return inWords(extractBuilt(
                      ArchiveBuilder().directory("closed/", 0555).file("closed/file", "x")));
              }));

    EXPECT_EQ("x", extractedFile("closed/file"));
    EXPECT_EQ(0555U, statusOf(target + "/closed").st_mode & 07777U);
    fs::permissions(target + "/closed", fs::perms::all);
}

TEST_F(ExtractArchiveTest, PrivilegesOfAnotherOwnerAreDropped) {
    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder()
                                              .file("foreign", "content", 04755)
                                              .owner(12345, 23456)
                                              .file("own", "content", 04755)
                                              .owner(::geteuid(), ::getegid())));

    EXPECT_EQ(0755U, statusOf(target + "/foreign").st_mode & 07777U);
    EXPECT_EQ(04755U, statusOf(target + "/own").st_mode & 07777U);
}

TEST_F(ExtractArchiveTest, OwnersAreNotRestored) {
    EXPECT_EQ(wholeWith(""),
              extractBuilt(ArchiveBuilder().file("file", "content").owner(12345, 23456)));

    EXPECT_EQ(::geteuid(), statusOf(target + "/file").st_uid);
    EXPECT_EQ(::getegid(), statusOf(target + "/file").st_gid);
}

// One entry of an access list as the kernel stores it, after a header of four bytes.
struct AccessEntry {
    std::uint16_t tag;
    std::uint16_t permissions;
    std::uint32_t id;

    bool operator==(const AccessEntry&) const = default;
};
constexpr std::uint16_t kUserTag = 2;

std::vector<AccessEntry> accessListOf(const std::string& path) {
    char raw[1024];
    const ssize_t length = ::getxattr(path.c_str(), kAccessList, raw, sizeof(raw));
    std::vector<AccessEntry> list;
    for (ssize_t offset = 4; offset + 8 <= length; offset += 8) {
        AccessEntry entry{};
        std::memcpy(&entry, raw + offset, sizeof(entry));
        list.push_back(entry);
    }
    return list;
}

TEST_F(ExtractArchiveTest, AccessListsAreRestoredWithTheUsersOfThisMachine) {
    if (!accessListsWork()) {
        GTEST_SKIP() << "no access lists on this disk";
    }

    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder()
                                              .file("file", "content")
                                              .grant("daemon", 54321, 6)
                                              .grant("nobody-of-this-name", 54322, 4)
                                              .accessMask(7)));

    const std::vector<AccessEntry> list = accessListOf(target + "/file");
    EXPECT_EQ(1, std::count(list.begin(), list.end(), AccessEntry{kUserTag, 6, 1}));
    EXPECT_EQ(1, std::count(list.begin(), list.end(), AccessEntry{kUserTag, 4, 54322}));
}

int fileFlagsOf(const std::string& path, int request, int flags) {
    const basekit2::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return ::ioctl(file.get(), static_cast<unsigned long>(request), &flags) == 0 ? flags : -1;
}

TEST_F(ExtractArchiveTest, FileFlagsAreRestored) {
    const std::string probe = directory.write("probe", "");
    if (fileFlagsOf(probe, static_cast<int>(FS_IOC_SETFLAGS), FS_NODUMP_FL) < 0) {
        GTEST_SKIP() << "no file flags on this disk";
    }

    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder()
                                              .file("flagged", "content")
                                              .fileFlags("nodump")
                                              .file("plain", "content")));

    EXPECT_NE(
        0, fileFlagsOf(target + "/flagged", static_cast<int>(FS_IOC_GETFLAGS), 0) & FS_NODUMP_FL);
    EXPECT_EQ(0,
              fileFlagsOf(target + "/plain", static_cast<int>(FS_IOC_GETFLAGS), 0) & FS_NODUMP_FL);
}

TEST_F(ExtractArchiveTest, PipesAreMade) {
    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder().fifo("pipe")));

    EXPECT_TRUE(S_ISFIFO(statusOf(target + "/pipe").st_mode));
}

TEST_F(ExtractArchiveTest, DeviceThatMayNotBeMadeIsReportedAndSkipped) {
    admitEverybody();

    EXPECT_EQ("whole\nCan't create '" + target + "/device'\nlater line\n", inOwnProcess([&] {
                  dropPrivileges();
                  return inWords(extractBuilt(ArchiveBuilder()
                                                  .characterDevice("device", makedev(1, 3))
                                                  .file("after", "content")));
              }));

    EXPECT_FALSE(fs::exists(target + "/device"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, HardLinkTargetsLieBelowTheDestinationLikeTheEntriesThatTheyName) {
    EXPECT_EQ(
        wholeWith(""),
        extractBuilt(ArchiveBuilder().file("original", "content").hardLink("link", "original")));

    EXPECT_EQ("content", extractedFile("link"));
    EXPECT_EQ(statusOf(target + "/original").st_ino, statusOf(target + "/link").st_ino);
}

TEST_F(ExtractArchiveTest, HardLinkWithoutItsTargetIsReportedAndSkipped) {
    EXPECT_EQ(wholeWith("Hard-link target '" + target + "/nowhere/original' does not exist.\n"),
              extractBuilt(
                  ArchiveBuilder().hardLink("link", "/nowhere/original").file("after", "content")));

    EXPECT_FALSE(fs::exists(target + "/link"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, EntryWhoseHeaderCannotBeWrittenIsReportedAndItsDataSkipped) {
    (void)directory.write("target/taken/file", "kept");

    EXPECT_EQ(wholeWith("Can't replace existing directory with non-directory\n"),
              extractBuilt(ArchiveBuilder().file("taken", noise(50000)).file("after", "content")));

    EXPECT_EQ("kept", extractedFile("taken/file"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, EntryThatCannotBeFinishedAsToldIsReportedOnceAndKept) {
    if (!accessListsWork()) {
        GTEST_SKIP() << "no access lists on this disk";
    }

    // The kernel refuses a list of users without a mask.
    EXPECT_EQ(wholeWith("Failed to set acl on fd: access\n"),
              extractBuilt(ArchiveBuilder()
                               .file("file", "content")
                               .grant("daemon", 1, 6)
                               .file("after", "content")));

    EXPECT_EQ("content", extractedFile("file"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, FileThatCannotBeOpenedPrintsTheReadersTextWithoutALineEnd) {
    const std::string missing = directory.entry("missing");

    EXPECT_EQ(failedWith("Failed to open '" + missing + "'"), extract(missing, target));

    EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(ExtractArchiveTest, UnreadableFilePrintsTheReadersTextWithoutALineEnd) {
    const std::string file = ArchiveBuilder().file("file", "content").write(archive);
    admitEverybody();
    fs::permissions(file, fs::perms::none);

    EXPECT_EQ("failed\nFailed to open '" + file + "'later line\n", inOwnProcess([&] {
                  dropPrivileges();
                  return inWords(extract(file, target));
              }));
}

TEST_F(ExtractArchiveTest, EmptyFileIsAnArchiveWithoutEntries) {
    EXPECT_EQ(wholeWith(""), extractBytes(""));
    EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(ExtractArchiveTest, ArchiveWithoutEntriesIsWhole) {
    EXPECT_EQ(wholeWith(""), extractBuilt(ArchiveBuilder()));
    EXPECT_TRUE(fs::is_empty(target));
}

// Where the reader fails, the writer's text is told, which is missing then.

TEST_F(ExtractArchiveTest, ErrorPagePrintsTheReadersTextWithoutALineEnd) {
    EXPECT_EQ(failedWith("Unrecognized archive format"),
              extractBytes("<!DOCTYPE html>\n<html><head><title>404 Not Found"
                           "</title></head><body>Not Found</body></html>\n"));
    EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(ExtractArchiveTest, DataThatBreaksOffFailsAndDoesNotSilenceStandardError) {
    const std::string bytes = ArchiveBuilder()
                                  .file("first", "content")
                                  .file("big", noise(300000))
                                  .file("last", "content")
                                  .bytes();

    EXPECT_EQ(failedWith("\n"), extractBytes(kolvan::test::truncated(bytes)));

    EXPECT_EQ("content", extractedFile("first"));
    EXPECT_FALSE(fs::exists(target + "/last"));
}

TEST_F(ExtractArchiveTest, HeaderThatCannotBeReadFailsWithTheWritersLine) {
    const std::string bytes = ArchiveBuilder(Format::Tar).file("file", "content").bytes();

    EXPECT_EQ(failedWith("\n"), extractBytes(bytes.substr(0, 700)));
}

// Not the text of the reader, which is the one that has met the problem.
TEST_F(ExtractArchiveTest, HeaderThatCannotBeReadAfterAFailedWriteRepeatsTheWritersText) {
    const std::string taken = ArchiveBuilder(Format::Tar).file("taken", "").bytes();
    const std::string after = ArchiveBuilder(Format::Tar).file("after", "").bytes();
    constexpr std::size_t kEndMark = 1024;
    (void)directory.write("target/taken/file", "kept");

    EXPECT_EQ(failedWith("Can't replace existing directory with non-directory\n"
                         "Can't replace existing directory with non-directory\n"),
              extractBytes(taken.substr(0, taken.size() - kEndMark) + after.substr(0, 200)));
}

TEST_F(ExtractArchiveTest, EncryptedDataFailsAndDoesNotSilenceStandardError) {
    EXPECT_EQ(failedWith("\n"), extractBuilt(ArchiveBuilder(Format::Zip)
                                                 .encrypt("secret")
                                                 .file("file", "content")
                                                 .file("after", "content")));

    EXPECT_FALSE(fs::exists(target + "/after"));
}

// A name that is marked as UTF-8 is more than the "C" locale can tell, of which the reader warns.
TEST_F(ExtractArchiveTest, EntryWithAWarningIsReportedAndExtracted) {
    std::string bytes =
        ArchiveBuilder(Format::Tar).file("b\xc3\xa4r", "content").file("after", "content").bytes();
    const std::string mark = "hdrcharset=BINARY";
    ASSERT_NE(std::string::npos, bytes.find(mark));
    bytes.replace(bytes.find(mark), mark.size(), "comment=untagged_");

    EXPECT_EQ(wholeWith("\n"), extractBytes(bytes));

    EXPECT_EQ("content", extractedFile("b\xc3\xa4r"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, EntryWhoseNameCannotBeToldDoesNotHarmTheOthers) {
    const std::string bytes = ArchiveBuilder(Format::SevenZip)
                                  .file("before", "content")
                                  .file("b\xc3\xa4r", "content")
                                  .file("after", "content")
                                  .bytes();

    const Extraction extraction = extractBytes(bytes);

    EXPECT_TRUE(extraction.whole);
    EXPECT_TRUE(extraction.problems.starts_with("\n")) << extraction.problems;
    EXPECT_TRUE(extraction.problems.ends_with("\nlater line\n")) << extraction.problems;
    EXPECT_EQ("content", extractedFile("before"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, DamagedHeaderWithoutANameDoesNotHarmTheOthers) {
    const std::string before = ArchiveBuilder(Format::Tar).file("before", "content").bytes();
    const std::string after = ArchiveBuilder(Format::Tar).file("after", "content").bytes();
    constexpr std::size_t kEndMark = 1024;

    const Extraction extraction =
        extractBytes(before.substr(0, before.size() - kEndMark) + std::string(512, 'g') + after);

    EXPECT_TRUE(extraction.whole);
    EXPECT_TRUE(extraction.problems.starts_with("\n")) << extraction.problems;
    EXPECT_TRUE(extraction.problems.ends_with("\nlater line\n")) << extraction.problems;
    EXPECT_EQ("content", extractedFile("before"));
    EXPECT_EQ("content", extractedFile("after"));
}

TEST_F(ExtractArchiveTest, FailedWriteIsReportedTwiceAndTheNextEntriesAreExtracted) {
    const std::string file =
        ArchiveBuilder().file("big", noise(300000)).file("after", "").write(archive);

    const std::string report = inOwnProcess([&] {
        if (!mountSmallDisk(target, 131072)) {
            return std::string("not permitted");
        }
        const std::string outcome = inWords(extract(file, target));
        return outcome + (fs::exists(target + "/after") ? "" : "no next entry");
    });

    if (report == "not permitted") {
        GTEST_SKIP() << "disks cannot be mounted here";
    }
    EXPECT_EQ("whole\nWrite failed\nWrite failed\nlater line\n", report);
}

TEST_F(ExtractArchiveTest, FileThatCannotReachItsLengthFails) {
    const std::string file =
        ArchiveBuilder().file("big", noise(300000)).file("after", "content").write(archive);

    EXPECT_EQ("failed\nWrite failed\nWrite failed\nWrite to restore size failed\nlater line\n",
              inOwnProcess([&] {
                  limitFileSize(100000);
                  return inWords(extract(file, target));
              }));
}

TEST_F(ExtractArchiveTest, ReadOnlyDestinationIsReportedForEachEntry) {
    const std::string file =
        ArchiveBuilder().file("first", "content").file("second", "content").write(archive);
    admitEverybody();
    fs::permissions(target,
                    fs::perms::owner_read | fs::perms::others_read | fs::perms::others_exec);

    EXPECT_EQ("whole\nCan't create '" + target + "/first'\nCan't create '" + target +
                  "/second'\nlater line\n",
              inOwnProcess([&] {
                  dropPrivileges();
                  return inWords(extract(file, target));
              }));
    fs::permissions(target, fs::perms::owner_all);
}

class ExtractArchiveReleaseTest : public ExtractArchiveTest {
protected:
    void expectNothingLeft(bool whole, const std::string& file) const {
        (void)extract(file, target);
        const std::size_t descriptors = openDescriptors();
        const std::size_t memory = ::mallinfo2().uordblks;
        for (int round = 0; round < 100; ++round) {
            EXPECT_EQ(whole, extract(file, target).whole);
        }
        EXPECT_EQ(descriptors, openDescriptors());
        // One handle takes more than this; where a sanitizer counts memory, it tells of each.
        constexpr std::size_t kHandle = 1000;
        EXPECT_LT(::mallinfo2().uordblks, memory + 100 * kHandle);
    }
};

TEST_F(ExtractArchiveReleaseTest, HandlesAreReleasedWhereTheArchiveCannotBeOpened) {
    expectNothingLeft(false, directory.entry("missing"));
    expectNothingLeft(false, directory.write("page", "<html>Not Found</html>"));
}

TEST_F(ExtractArchiveReleaseTest, HandlesAreReleasedWhereAHeaderCannotBeRead) {
    const std::string bytes = ArchiveBuilder(Format::Tar).file("file", "content").bytes();
    expectNothingLeft(false, directory.write("archive", bytes.substr(0, 700)));
}

TEST_F(ExtractArchiveReleaseTest, HandlesAreReleasedWhereDataCannotBeRead) {
    const std::string bytes = ArchiveBuilder().file("file", noise(300000)).bytes();
    expectNothingLeft(false, directory.write("archive", kolvan::test::truncated(bytes)));
}

TEST_F(ExtractArchiveReleaseTest, HandlesAreReleasedAtTheEnd) {
    expectNothingLeft(true, ArchiveBuilder().file("file", "content").write(archive));
}

}  // namespace
}  // namespace cagnt1::operations
