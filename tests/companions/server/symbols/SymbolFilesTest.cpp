#include "companions/server/symbols/SymbolFiles.h"

#include "companions/server/base/Hex.h"
#include "tests/companions/server/support/FailureOf.h"
#include "tests/companions/server/symbols/ElfImage.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace kolvan::server::symbols {
namespace {

namespace fs = std::filesystem;

using kolvan::test::ElfImage;
using Names = std::vector<std::string>;

class SymbolFilesTest : public testing::Test {
protected:
    Symbols put(const std::string& id, const std::string& function,
                const std::string& name = "app") {
        return putContent(id, ElfImage{id, {{function, 0x100, 8}}}.file(), name);
    }

    Symbols putContent(const std::string& id, const std::string& content,
                       const std::string& name = "app") {
        IncomingFile file = files.begin(hex(id), name);
        file.write(content);
        return files.keep(std::move(file), hex(id));
    }

    static std::string hex(const std::string& id) { return toHex(std::as_bytes(std::span(id))); }

    Names nameOf(const std::string& id) const {
        return files.namesAt(hex(id), std::vector<std::uint64_t>{0x100});
    }

    /// Lets a file have come at this second.
    void setTime(const Symbols& symbols, std::int64_t seconds) const {
        const std::string path = place.entry("files/kept/" + symbols.buildId + "/" + symbols.name);
        const timespec both[2] = {{seconds, 0}, {seconds, 5'000'000}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), both, 0));
    }

    /// Number of files, whole or not.
    std::ptrdiff_t filesThere() const {
        const fs::recursive_directory_iterator entries(place.path() / "files");
        return std::count_if(begin(entries), end(entries),
                             [](const auto& entry) { return entry.is_regular_file(); });
    }

    kolvan::test::TemporaryDirectory place;
    SymbolFiles files{place.path() / "files"};
};

TEST_F(SymbolFilesTest, KeptFileNamesItsFunctions) {
    const std::string content = ElfImage{"id", {{"hidden", 0x100, 8}}}.file();

    const Symbols kept = putContent("id", content, "libx.so.1");

    EXPECT_EQ("6964", kept.buildId);
    EXPECT_EQ("libx.so.1", kept.name);
    EXPECT_EQ(content.size(), kept.sizeBytes);
    EXPECT_EQ(Names({"hidden"}), nameOf("id"));
    EXPECT_EQ(Names({""}), nameOf("ix"));
    EXPECT_EQ("", files.stampOf(hex("ix")));
}

TEST_F(SymbolFilesTest, StampChangesWithTheFile) {
    (void)put("id", "first");
    const std::string before = files.stampOf("6964");
    EXPECT_NE("", before);
    EXPECT_EQ(before, files.stampOf("6964"));

    (void)put("id", "later");
    EXPECT_NE(before, files.stampOf("6964"));

    EXPECT_TRUE(files.remove("6964"));
    EXPECT_EQ("", files.stampOf("6964"));
}

TEST_F(SymbolFilesTest, LaterFileTakesThePlaceWhateverItsName) {
    (void)put("id", "first", "old.so");

    (void)put("id", "second", "new.so");

    EXPECT_EQ(Names({"second"}), nameOf("id"));
    ASSERT_EQ(1U, files.list().size());
    EXPECT_EQ("new.so", files.list()[0].name);
    EXPECT_EQ(1, filesThere());
}

TEST_F(SymbolFilesTest, FileThatNamesNothingHereIsRefusedAndLeavesTheOneBefore) {
    (void)put("id", "first");
    const auto refusal = [this](const std::string& content) {
        return failureOf([&] { (void)putContent("id", content); });
    };

    EXPECT_EQ("This is no ELF file.", refusal("no ELF file"));
    EXPECT_EQ("This ELF file has no build-id.", refusal(ElfImage{"", {{"one", 1, 1}}}.file()));
    EXPECT_EQ("This ELF file has another build-id: 6f74.",
              refusal(ElfImage{"ot", {{"one", 1, 1}}}.file()));
    EXPECT_EQ("This ELF file names no functions.", refusal(ElfImage{"id", {}}.file()));

    EXPECT_EQ(Names({"first"}), nameOf("id"));
    EXPECT_EQ(1, filesThere());
}

TEST_F(SymbolFilesTest, NewestComesFirst) {
    setTime(put("bb", "f"), 2000);
    setTime(put("aa", "f"), 1000);
    setTime(put("cc", "f"), 2000);

    std::vector<std::string> order;
    for (const Symbols& one : files.list()) {
        order.push_back(one.buildId + " " + toRfc3339(one.added));
    }

    EXPECT_EQ(
        std::vector<std::string>({"6363 1970-01-01T00:33:20.005Z", "6262 1970-01-01T00:33:20.005Z",
                                  "6161 1970-01-01T00:16:40.005Z"}),
        order);
}

TEST_F(SymbolFilesTest, RemovedOnesAreGone) {
    (void)put("id", "first");

    EXPECT_TRUE(files.remove("6964"));

    EXPECT_FALSE(files.remove("6964"));
    EXPECT_EQ(Names({""}), nameOf("id"));
    EXPECT_TRUE(files.list().empty());
}

TEST_F(SymbolFilesTest, NothingBeyondTheDirectoryIsReached) {
    (void)put("id", "first");
    place.write("files/outside/app", ElfImage{"id", {{"outside", 0x100, 8}}}.file());

    for (const std::string id : {"../outside", "..", "", "6964/", "6964."}) {
        EXPECT_FALSE(SymbolFiles::isBuildId(id)) << id;
        EXPECT_EQ("", files.stampOf(id)) << id;
        EXPECT_FALSE(files.remove(id)) << id;
    }
    EXPECT_EQ(2, filesThere());
}

TEST_F(SymbolFilesTest, BuildIdIsAnEvenNumberOfLowerCaseDigits) {
    EXPECT_TRUE(SymbolFiles::isBuildId("0f"));
    EXPECT_TRUE(SymbolFiles::isBuildId(std::string(128, 'a')));
    EXPECT_FALSE(SymbolFiles::isBuildId(std::string(130, 'a')));
    EXPECT_FALSE(SymbolFiles::isBuildId("0f1"));
    EXPECT_FALSE(SymbolFiles::isBuildId("0F"));
    EXPECT_FALSE(SymbolFiles::isBuildId("0g"));
}

TEST_F(SymbolFilesTest, NameIsOneThatHidesNothing) {
    EXPECT_TRUE(SymbolFiles::isName("libstdc++.so.6.0.30"));
    EXPECT_TRUE(SymbolFiles::isName("app@2_x-64"));
    EXPECT_TRUE(SymbolFiles::isName(std::string(200, 'a')));
    EXPECT_FALSE(SymbolFiles::isName(std::string(201, 'a')));
    EXPECT_FALSE(SymbolFiles::isName(""));
    EXPECT_FALSE(SymbolFiles::isName(".."));
    EXPECT_FALSE(SymbolFiles::isName("a/b"));
    EXPECT_FALSE(SymbolFiles::isName("a b"));
    EXPECT_FALSE(SymbolFiles::isName("a\n"));
}

TEST_F(SymbolFilesTest, FileThatWasDamagedSinceNamesNothing) {
    (void)put("id", "first");
    place.write("files/kept/6964/app", "rust");

    EXPECT_EQ(Names({""}), nameOf("id"));
}

TEST_F(SymbolFilesTest, ManyMayComeAndGoAtOnce) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (int turn = 0; turn < 50; ++turn) {
                (void)put("id", "first", "app" + std::to_string(thread));
                (void)files.list();
                const Names found = nameOf("id");
                EXPECT_TRUE(found == Names({"first"}) || found == Names({""})) << found[0];
                (void)files.remove("6964");  // another thread may have been faster
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(files.list().empty());
    EXPECT_EQ(0, filesThere());
}

}  // namespace
}  // namespace kolvan::server::symbols
