#include "companions/server/collections/UploadedFiles.h"

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::server {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class UploadedFilesTest : public testing::Test {
protected:
    void upload(const std::string& name, const std::string& content) const {
        IncomingFile upload = files.begin(collection, name);
        upload.write(content);
        upload.keep();
    }

    /// Number of files that are just being uploaded.
    std::ptrdiff_t incoming() const {
        const fs::recursive_directory_iterator entries(place.path() / "traces/incoming");
        return std::count_if(begin(entries), end(entries), [](const fs::directory_entry& entry) {
            return entry.is_regular_file();
        });
    }

    test::TemporaryDirectory place;
    const UploadedFiles files{place.path() / "traces"};
    const CollectionId collection = CollectionId::make();
};

TEST_F(UploadedFilesTest, FileTakesItsPlaceWhenItIsWhole) {
    IncomingFile upload = files.begin(collection, "data.0/profile.pb.gz");
    upload.write("first, ");
    upload.write("second");
    EXPECT_FALSE(fs::exists(files.path(collection, "data.0/profile.pb.gz")));

    EXPECT_EQ(13U, upload.keep());

    EXPECT_EQ("first, second", contentOf(files.path(collection, "data.0/profile.pb.gz")));
    EXPECT_EQ(0, incoming());
}

TEST_F(UploadedFilesTest, UploadThatBreaksOffLeavesNothing) {
    {
        IncomingFile upload = files.begin(collection, "data.0/cut");
        upload.write("half");
    }

    EXPECT_FALSE(fs::exists(files.path(collection, "data.0/cut")));
    EXPECT_EQ(0, incoming());
}

TEST_F(UploadedFilesTest, SecondUploadOfANameReplacesTheFirstAsAWhole) {
    upload("data.0/a", "a longer first text");
    IncomingFile second = files.begin(collection, "data.0/a");
    second.write("short");
    EXPECT_EQ("a longer first text", contentOf(files.path(collection, "data.0/a")));

    second.keep();

    EXPECT_EQ("short", contentOf(files.path(collection, "data.0/a")));
}

TEST_F(UploadedFilesTest, UploadsOfOneNameAtOnceDoNotMix) {
    IncomingFile first = files.begin(collection, "a");
    IncomingFile second = files.begin(collection, "a");
    first.write("first");
    second.write("second");

    second.keep();
    first.keep();

    EXPECT_EQ("first", contentOf(files.path(collection, "a")));
}

TEST_F(UploadedFilesTest, MovedUploadIsKeptOnce) {
    std::optional<IncomingFile> original(files.begin(collection, "a"));
    IncomingFile upload(std::move(*original));
    original.reset();
    upload.write("text");

    EXPECT_EQ(4U, upload.keep());
    EXPECT_EQ("text", contentOf(files.path(collection, "a")));
}

TEST_F(UploadedFilesTest, FileInTheWayOfADirectoryIsAFailureThatLeavesIt) {
    upload("data.0", "a file");

    EXPECT_THROW(upload("data.0/below", "text"), std::system_error);

    EXPECT_EQ("a file", contentOf(files.path(collection, "data.0")));
    EXPECT_EQ(0, incoming());
}

TEST_F(UploadedFilesTest, NextStartRemovesWhatAKilledProcessHasNotReceivedWhole) {
    upload("whole", "text");
    const pid_t killed = ::fork();
    ASSERT_LE(0, killed);
    if (killed == 0) {
        const UploadedFiles others(place.path() / "traces");
        IncomingFile cut = others.begin(collection, "cut");
        cut.write("half");
        ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(killed, ::waitpid(killed, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(1, incoming());

    const UploadedFiles successor(place.path() / "traces");

    EXPECT_EQ(0, incoming());
    EXPECT_EQ("text", contentOf(successor.path(collection, "whole")));
}

TEST_F(UploadedFilesTest, SuccessorLeavesAloneWhatIsStillBeingReceived) {
    IncomingFile upload = files.begin(collection, "a");
    upload.write("first, ");

    const UploadedFiles successor(place.path() / "traces");
    upload.write("second");
    upload.keep();

    EXPECT_EQ("first, second", contentOf(successor.path(collection, "a")));
}

TEST_F(UploadedFilesTest, RemovalLeavesOtherCollectionsAlone) {
    const CollectionId other = CollectionId::make();
    upload("mine", "text");
    IncomingFile theirs = files.begin(other, "theirs");
    theirs.keep();

    files.remove(collection);

    EXPECT_FALSE(fs::exists(files.path(collection, "mine")));
    EXPECT_TRUE(fs::exists(files.path(other, "theirs")));
}

TEST_F(UploadedFilesTest, ReceivedBytesAreCountedAlsoOfWhatBreaksOff) {
    {
        IncomingFile broken = files.begin(collection, "broken");
        broken.write("four");
    }
    upload("whole", "seven..");

    EXPECT_EQ(11U, files.received());
}

TEST_F(UploadedFilesTest, OnlyTheirOwnerMayReadThem) {
    upload("data.0/a", "secret");

    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
              fs::status(files.path(collection, "data.0/a")).permissions());
    EXPECT_EQ(fs::perms::owner_all, fs::status(place.path() / "traces").permissions());
}

}  // namespace
}  // namespace kolvan::server
