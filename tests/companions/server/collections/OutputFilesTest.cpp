#include "companions/server/collections/OutputFiles.h"

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace kolvan::server {
namespace {

namespace fs = std::filesystem;

/// Lets no file of this process grow beyond a size, as a full disk would.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : formerHandler(std::signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &former));
        const rlimit limit{bytes, former.rlim_max};
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
    }
    ~FileSizeLimit() {
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &former));
        (void)std::signal(SIGXFSZ, formerHandler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit former{};
    void (*formerHandler)(int);
};

class OutputFilesTest : public testing::Test {
protected:
    std::string readAll(const OperationId& operation, OutputChannel channel) const {
        std::string text(files.size(operation, channel), '\0');
        text.resize(files.read(operation, channel, 0, text));
        return text;
    }

    test::TemporaryDirectory place;
    const OutputFiles files{place.path() / "output"};
    const OperationId operation = OperationId::make();
};

TEST_F(OutputFilesTest, PiecesFollowEachOther) {
    EXPECT_EQ(4U, files.append(operation, OutputChannel::Stdout, "one "));
    EXPECT_EQ(7U, files.append(operation, OutputChannel::Stdout, "two"));

    EXPECT_EQ("one two", readAll(operation, OutputChannel::Stdout));
}

TEST_F(OutputFilesTest, ChannelsAndOperationsAreApart) {
    const OperationId other = OperationId::make();
    files.append(operation, OutputChannel::Stdout, "out");
    files.append(operation, OutputChannel::Stderr, "err");
    files.append(operation, OutputChannel::Feedback, "feedback");
    files.append(other, OutputChannel::Stdout, "other");

    EXPECT_EQ("out", readAll(operation, OutputChannel::Stdout));
    EXPECT_EQ("err", readAll(operation, OutputChannel::Stderr));
    EXPECT_EQ("feedback", readAll(operation, OutputChannel::Feedback));
    EXPECT_EQ("other", readAll(other, OutputChannel::Stdout));
}

TEST_F(OutputFilesTest, SilenceIsEmpty) {
    std::array<char, 8> buffer{};

    EXPECT_EQ(0U, files.size(operation, OutputChannel::Stderr));
    EXPECT_EQ(0U, files.read(operation, OutputChannel::Stderr, 0, buffer));
    EXPECT_FALSE(fs::exists(files.path(operation, OutputChannel::Stderr)));
}

TEST_F(OutputFilesTest, ReadingBeginsWhereItIsToldAndEndsWithTheBufferOrTheText) {
    files.append(operation, OutputChannel::Stdout, "0123456789");
    std::array<char, 4> buffer{};

    EXPECT_EQ(4U, files.read(operation, OutputChannel::Stdout, 3, buffer));
    EXPECT_EQ("3456", std::string(buffer.begin(), buffer.end()));
    EXPECT_EQ(2U, files.read(operation, OutputChannel::Stdout, 8, buffer));
    EXPECT_EQ("89", std::string(buffer.begin(), buffer.begin() + 2));
    EXPECT_EQ(0U, files.read(operation, OutputChannel::Stdout, 10, buffer));
}

TEST_F(OutputFilesTest, AnotherServerOnTheSameDirectorySeesWhatWasWritten) {
    files.append(operation, OutputChannel::Stdout, "kept");

    const OutputFiles successor(place.path() / "output");
    EXPECT_EQ(8U, successor.append(operation, OutputChannel::Stdout, "more"));
    EXPECT_EQ("keptmore", readAll(operation, OutputChannel::Stdout));
}

TEST_F(OutputFilesTest, LineSaysWhereOutputIsMissing) {
    files.append(operation, OutputChannel::Stdout, "before");
    const fs::path file = files.path(operation, OutputChannel::Stdout);
    fs::rename(file, place.path() / "aside");
    fs::create_directory(file);
    EXPECT_THROW(files.append(operation, OutputChannel::Stdout, "missing"), std::system_error);
    EXPECT_THROW(files.append(operation, OutputChannel::Stdout, "too"), std::system_error);
    fs::remove(file);
    fs::rename(place.path() / "aside", file);

    files.append(operation, OutputChannel::Stdout, "behind");
    files.append(operation, OutputChannel::Stdout, "more");
    files.finish(operation);

    EXPECT_EQ("before" + std::string(OutputFiles::kGap) + "behindmore",
              readAll(operation, OutputChannel::Stdout));
    EXPECT_EQ("", readAll(operation, OutputChannel::Stderr));
}

TEST_F(OutputFilesTest, LineSaysThatTheEndIsMissing) {
    const fs::path file = files.path(operation, OutputChannel::Stderr);
    fs::create_directories(file);
    EXPECT_THROW(files.append(operation, OutputChannel::Stderr, "missing"), std::system_error);
    EXPECT_THROW(files.finish(operation), std::system_error);
    fs::remove(file);

    files.finish(operation);
    files.finish(operation);

    EXPECT_EQ(OutputFiles::kGap, readAll(operation, OutputChannel::Stderr));
    EXPECT_FALSE(fs::exists(files.path(operation, OutputChannel::Stdout)));
}

TEST_F(OutputFilesTest, NothingIsSaidOfWhatWasRemoved) {
    const fs::path file = files.path(operation, OutputChannel::Stdout);
    fs::create_directories(file);
    EXPECT_THROW(files.append(operation, OutputChannel::Stdout, "missing"), std::system_error);

    files.remove(operation);
    files.finish(operation);

    EXPECT_FALSE(fs::exists(file));
}

TEST_F(OutputFilesTest, PartOfTheLineIsTakenBack) {
    files.append(operation, OutputChannel::Stdout, "before");
    {
        const FileSizeLimit limit(8);
        EXPECT_THROW(files.append(operation, OutputChannel::Stdout, "missing"), std::system_error);
    }
    {
        const FileSizeLimit limit(12);
        EXPECT_THROW(files.finish(operation), std::system_error);
    }

    EXPECT_EQ("beforemi", readAll(operation, OutputChannel::Stdout));
}

TEST_F(OutputFilesTest, WritersAtOnceLoseNothing) {
    constexpr std::size_t kPieces = 200;
    std::vector<std::thread> writers;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        writers.emplace_back([this, letter] {
            for (std::size_t i = 0; i < kPieces; ++i) {
                files.append(operation, OutputChannel::Stdout, std::string(100, letter));
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }

    const std::string text = readAll(operation, OutputChannel::Stdout);
    ASSERT_EQ(4 * kPieces * 100, text.size());
    for (std::size_t i = 0; i < text.size(); i += 100) {
        EXPECT_EQ(std::string(100, text[i]), text.substr(i, 100));
    }
}

TEST_F(OutputFilesTest, AddedBytesAreCounted) {
    EXPECT_EQ(0U, files.added());

    files.append(operation, OutputChannel::Stdout, "four");
    files.append(OperationId::make(), OutputChannel::Stderr, "seven..");

    EXPECT_EQ(11U, files.added());
}

TEST_F(OutputFilesTest, OnlyTheirOwnerMayReadThem) {
    files.append(operation, OutputChannel::Stdout, "secret");
    const fs::path file = files.path(operation, OutputChannel::Stdout);

    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file).permissions());
    EXPECT_EQ(fs::perms::owner_all, fs::status(file.parent_path()).permissions());
    EXPECT_EQ(fs::perms::owner_all, fs::status(place.path() / "output").permissions());
}

TEST_F(OutputFilesTest, RemovedOperationIsSilentAgain) {
    files.append(operation, OutputChannel::Stdout, "gone");

    files.remove(operation);

    EXPECT_EQ(0U, files.size(operation, OutputChannel::Stdout));
    files.remove(operation);
}

TEST_F(OutputFilesTest, RefusalOfTheDiskIsToldWithThePath) {
    fs::remove_all(place.path() / "output");
    place.write("output", "a file where a directory was");

    try {
        files.append(operation, OutputChannel::Stdout, "text");
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_NE(std::string::npos, std::string(error.what()).find("/output")) << error.what();
        EXPECT_EQ(ENOTDIR, error.code().value());
    }
}

TEST_F(OutputFilesTest, NameThatIsNoIdLeavesTheDirectoryAlone) {
    for (const char* name : {"", "..", "a/b", "a.b", "/etc"}) {
        EXPECT_THROW(files.append(OperationId(name), OutputChannel::Stdout, "text"),
                     std::invalid_argument);
    }
    EXPECT_TRUE(fs::is_empty(place.path() / "output"));
}

}  // namespace
}  // namespace kolvan::server
