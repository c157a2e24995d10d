#include "operations/OptionFile.h"

#include "tests/operations/AuditedTest.h"
#include "tests/operations/Failure.h"
#include "tests/operations/OwnProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/filesystem.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/stat.h>

namespace cagnt1::operations {
namespace {

using kolvan::test::readFile;
using Lines = std::vector<std::string>;

class OptionFileTest : public AuditedTest {
protected:
    /// What ends up in the file that is written for these lines.
    std::string contentFor(const Lines& lines) const {
        return readFile(writeOptionFile(result, lines));
    }

    const kolvan::test::TemporaryDirectory directory;
    const std::string result = directory.entry("1a2b-4e5f-6a7b-8d9e");
    const std::string optionFile = result + "/config/trcap_remote.options";
};

TEST_F(OptionFileTest, FileLiesInTheConfigDirectoryAndItsPathIsReturned) {
    EXPECT_EQ(optionFile, writeOptionFile(result, {"-a"}));
    EXPECT_TRUE(std::filesystem::is_regular_file(optionFile));
}

TEST_F(OptionFileTest, ValueOfTheResultOptionIsReplacedByTheLocalDirectory) {
    EXPECT_EQ("-a\n1\n-r\n" + result + "\n", contentFor({"-a", "1", "-r", "old"}));
}

TEST_F(OptionFileTest, LinesWithoutTheResultOptionAreCopiedInTheirOrder) {
    EXPECT_EQ("--b\n2\n--a\n1\n", contentFor({"--b", "2", "--a", "1"}));
}

TEST_F(OptionFileTest, LinesAfterTheReplacedValueAreCopied) {
    EXPECT_EQ("-r\n" + result + "\n--duration\n10\n",
              contentFor({"-r", "/server/result", "--duration", "10"}));
}

TEST_F(OptionFileTest, ExactlyOneLineIsSkippedEvenIfItIsTheResultOptionAgain) {
    EXPECT_EQ("-r\n" + result + "\nvalue\n", contentFor({"-r", "-r", "value"}));
}

TEST_F(OptionFileTest, ThreeResultOptionsInARowAreTwoOfThem) {
    EXPECT_EQ("-r\n" + result + "\n-r\n" + result + "\n", contentFor({"-r", "-r", "-r"}));
}

TEST_F(OptionFileTest, EveryResultOptionGetsTheLocalDirectory) {
    EXPECT_EQ("-r\n" + result + "\n-a\n-r\n" + result + "\n",
              contentFor({"-r", "one", "-a", "-r", "two"}));
}

TEST_F(OptionFileTest, ResultOptionAsTheLastLineGetsTheLocalDirectory) {
    EXPECT_EQ("-a\n-r\n" + result + "\n", contentFor({"-a", "-r"}));
}

TEST_F(OptionFileTest, EmptyLineAfterTheResultOptionIsItsValue) {
    EXPECT_EQ("-r\n" + result + "\n-a\n", contentFor({"-r", "", "-a"}));
}

TEST_F(OptionFileTest, OnlyTheExactTextIsTheResultOption) {
    EXPECT_EQ("-r \nx\n -r\nx\n--r\nx\n-R\nx\n-r\r\nx\n-rx\nx\n",
              contentFor({"-r ", "x", " -r", "x", "--r", "x", "-R", "x", "-r\r", "x", "-rx", "x"}));
}

TEST_F(OptionFileTest, EmptyLinesAreKept) {
    EXPECT_EQ("\n-a\n\n\n-b\n\n", contentFor({"", "-a", "", "", "-b", ""}));
}

TEST_F(OptionFileTest, NothingIsQuotedOrEscaped) {
    EXPECT_EQ("--text\n a \"b\" 'c' \\ $d\t\r\n\xff\xfe\n",
              contentFor({"--text", " a \"b\" 'c' \\ $d\t\r", "\xff\xfe"}));
}

TEST_F(OptionFileTest, NoLinesMakeAnEmptyFile) {
    EXPECT_EQ("", contentFor({}));
}

TEST_F(OptionFileTest, LongOptionsAreWrittenWhole) {
    const std::string line(100000, 'x');

    EXPECT_EQ(line + "\n" + line + "\n", contentFor({line, line}));
}

TEST_F(OptionFileTest, ExistingResultDirectoryIsAFailureThatLeavesItAsItIs) {
    std::filesystem::create_directory(result);

    EXPECT_EQ("Failed to create result directory: " + result,
              failureOf([&] { return writeOptionFile(result, {"-a"}); }));

    EXPECT_TRUE(std::filesystem::is_empty(result));
}

TEST_F(OptionFileTest, OptionFileOfAnEarlierCollectionIsNotTouched) {
    (void)writeOptionFile(result, {"earlier"});

    EXPECT_EQ("Failed to create result directory: " + result,
              failureOf([&] { return writeOptionFile(result, {"later"}); }));

    EXPECT_EQ("earlier\n", readFile(optionFile));
}

TEST_F(OptionFileTest, ResultDirectoryIsCreatedOnALevelOfItsOwn) {
    EXPECT_EQ("filesystem error: No such file or directory",
              failureOf([&] { return writeOptionFile(result + "/deeper", {"-a"}); }));

    EXPECT_FALSE(std::filesystem::exists(result));
}

TEST_F(OptionFileTest, FileInPlaceOfTheParentIsTheFilesystemsFailure) {
    const std::string file = directory.write("file", "");

    EXPECT_EQ("filesystem error: Not a directory",
              failureOf([&] { return writeOptionFile(file + "/result", {"-a"}); }));
}

TEST_F(OptionFileTest, FileInPlaceOfTheResultDirectoryIsTheFilesystemsFailure) {
    (void)directory.write("1a2b-4e5f-6a7b-8d9e", "content");

    EXPECT_EQ("filesystem error: File exists",
              failureOf([&] { return writeOptionFile(result, {"-a"}); }));

    EXPECT_EQ("content", readFile(result));
}

TEST_F(OptionFileTest, ReadOnlyParentIsTheFilesystemsFailure) {
    EXPECT_EQ("filesystem error: Permission denied", inOwnProcess([&] {
                  ::chmod(directory.path().c_str(), 0555);
                  dropPrivileges();
                  return failureOf([&] { return writeOptionFile(result, {"-a"}); });
              }));
    std::filesystem::permissions(directory.path(), std::filesystem::perms::owner_all);
}

/// The permissions of a directory in octal digits.
std::string modeOf(const std::string& path) {
    std::ostringstream digits;
    digits << std::oct << static_cast<unsigned>(std::filesystem::status(path).permissions());
    return digits.str();
}

TEST_F(OptionFileTest, DirectoriesAreForTheOwnerAloneWhateverTheMaskLetsOthersDo) {
    for (const mode_t mask : {0000U, 0022U, 0002U, 0077U}) {
        EXPECT_EQ("700 700", inOwnProcess([&] {
                      ::umask(mask);
                      (void)writeOptionFile(result, {"-a"});
                      return modeOf(result) + " " + modeOf(result + "/config");
                  }))
            << mask;
        EXPECT_EQ("-a\n", readFile(optionFile));
        std::filesystem::remove_all(result);
    }
}

TEST_F(OptionFileTest, MaskThatLeavesTheOwnerNothingIsTheFilesystemsFailure) {
    for (const mode_t mask : {0777U, 0300U, 0100U}) {
        EXPECT_EQ("filesystem error: Permission denied", inOwnProcess([&] {
                      ::chmod(directory.path().c_str(), 0777);
                      dropPrivileges();
                      ::umask(mask);
                      return failureOf([&] { return writeOptionFile(result, {"-a"}); });
                  }))
            << mask;
        std::filesystem::remove(result);
    }
}

TEST_F(OptionFileTest, FailureNamesTheDirectoryAndTheReasonAsTheLibraryDoes) {
    const std::string missing = result + "/deeper";
    std::string expected;
    try {
        boost::filesystem::create_directory(missing);
    } catch (const boost::filesystem::filesystem_error& error) {
        expected = error.what();
    }

    try {
        (void)writeOptionFile(missing, {"-a"});
        ADD_FAILURE() << "was created";
    } catch (const boost::filesystem::filesystem_error& error) {
        EXPECT_EQ(expected, error.what());
        EXPECT_EQ(missing, error.path1().string());
    }
}

TEST_F(OptionFileTest, FileThatCannotBeOpenedIsAFailure) {
    EXPECT_EQ("Failed to open options file: " + optionFile, inOwnProcess([&] {
                  limitDescriptors(0);
                  return failureOf([&] { return writeOptionFile(result, {"-a"}); });
              }));
}

TEST_F(OptionFileTest, ShortFileThatCannotBeWrittenIsAFailure) {
    EXPECT_EQ("Failed to write options file: " + optionFile, inOwnProcess([&] {
                  limitFileSize(0);
                  return failureOf([&] { return writeOptionFile(result, {"-a"}); });
              }));
}

TEST_F(OptionFileTest, FileThatLacksItsLastByteIsAFailure) {
    EXPECT_EQ(
        "Failed to write options file: " + optionFile, inOwnProcess([&] {
            limitFileSize(20000);
            return failureOf([&] { return writeOptionFile(result, {std::string(20000, 'x')}); });
        }));
}

TEST_F(OptionFileTest, FileThatJustFitsIsWritten) {
    EXPECT_EQ(
        "no failure", inOwnProcess([&] {
            limitFileSize(20001);
            return failureOf([&] { return writeOptionFile(result, {std::string(20000, 'x')}); });
        }));
    EXPECT_EQ(20001U, std::filesystem::file_size(optionFile));
}

TEST_F(OptionFileTest, FullDiskIsAFailure) {
    const std::string disk = directory.entry("disk");
    std::filesystem::create_directory(disk);

    const std::string outcome = inOwnProcess([&] {
        if (!mountSmallDisk(disk, 65536)) {
            return std::string("not permitted");
        }
        std::ofstream(disk + "/filler") << std::string(100000, 'x');
        return failureOf([&] { return writeOptionFile(disk + "/result", {"-a"}); });
    });

    if (outcome == "not permitted") {
        GTEST_SKIP() << "disks cannot be mounted here";
    }
    EXPECT_EQ("Failed to write options file: " + disk + "/result/config/trcap_remote.options",
              outcome);
}

}  // namespace
}  // namespace cagnt1::operations
