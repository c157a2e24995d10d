#include "companions/profiler/symbols/SymbolIndex.h"

#include "tests/profiler/symbols/LoadedLibrary.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include <fcntl.h>

namespace {

using kolvan::profiler::ElfObject;
using kolvan::profiler::FileDescriptor;
using kolvan::profiler::SymbolIndex;
using kolvan::test::LoadedLibrary;
using kolvan::test::TemporaryDirectory;
namespace fs = std::filesystem;

constexpr const char* kHidden = "_ZN6kolvan7fixture6hiddenEi";

std::shared_ptr<const ElfObject> openObject(const std::string& place, const std::string& path,
                                            const std::string& root) {
    return ElfObject::open(FileDescriptor(::open(place.c_str(), O_RDONLY | O_CLOEXEC)), path, root);
}

std::shared_ptr<const ElfObject> openObject(const std::string& path) {
    return openObject(path, path, "");
}

std::string nameAt(const SymbolIndex& index, std::uint64_t address) {
    const auto match = index.find(address);
    return match ? match->name + ("+" + std::to_string(match->offset)) : "none";
}

class SymbolIndexTest : public testing::Test {
protected:
    const std::uint64_t outer = LoadedLibrary(KOLVAN_SYMBOL_LIBRARY).addressOf("kolvan_outer");
    const std::uint64_t hidden =
        LoadedLibrary(KOLVAN_SYMBOL_LIBRARY).addressFrom("kolvan_address_of_hidden");
    const TemporaryDirectory directory;
};

TEST_F(SymbolIndexTest, EachByteOfAFunctionHasItsName) {
    const SymbolIndex index(openObject(KOLVAN_SYMBOL_LIBRARY));

    EXPECT_EQ(std::string(kHidden) + "+0", nameAt(index, hidden));
    EXPECT_EQ(std::string(kHidden) + "+2", nameAt(index, hidden + 2));
}

TEST_F(SymbolIndexTest, ALocalFunctionHasItsName) {
    const SymbolIndex index(openObject(KOLVAN_SYMBOL_LIBRARY));
    const LoadedLibrary library(KOLVAN_SYMBOL_LIBRARY);

    EXPECT_EQ("_ZN6kolvan7fixtureL5localEi+0",
              nameAt(index, library.addressFrom("kolvan_address_of_local")));
}

TEST_F(SymbolIndexTest, AGlobalNameIsPreferredToAWeakOne) {
    const SymbolIndex index(openObject(KOLVAN_SYMBOL_LIBRARY));

    EXPECT_EQ(outer, LoadedLibrary(KOLVAN_SYMBOL_LIBRARY).addressOf("kolvan_weak"));
    EXPECT_EQ("kolvan_outer+0", nameAt(index, outer));
}

TEST_F(SymbolIndexTest, ALabelInAFunctionIsNoFunction) {
    const SymbolIndex index(openObject(KOLVAN_SYMBOL_LIBRARY));
    const std::uint64_t spot = LoadedLibrary(KOLVAN_SYMBOL_LIBRARY).addressOf("kolvan_spot");

    EXPECT_LE(outer, spot);
    EXPECT_EQ("kolvan_outer+" + std::to_string(spot - outer), nameAt(index, spot));
}

TEST_F(SymbolIndexTest, AFunctionWithoutASizeReachesToTheNext) {
    const SymbolIndex index(openObject(KOLVAN_SYMBOL_LIBRARY));
    const std::uint64_t begin = LoadedLibrary(KOLVAN_SYMBOL_LIBRARY).addressOf("kolvan_assembly");

    EXPECT_EQ("kolvan_assembly+2", nameAt(index, begin + 2));
}

TEST_F(SymbolIndexTest, WhatIsNoCodeHasNoName) {
    const SymbolIndex index(openObject(KOLVAN_SYMBOL_LIBRARY));

    EXPECT_EQ("none", nameAt(index, 0));
    EXPECT_EQ("none", nameAt(index, 0x7FFF'FFFF));
}

TEST_F(SymbolIndexTest, ACallOfAnotherObjectIsNamedAfterItsFunction) {
    const auto object = openObject(KOLVAN_STACK_FIXTURE);
    const SymbolIndex index(object);

    bool found = false;
    for (const ElfObject::Segment& segment : object->segments()) {
        for (std::uint64_t offset = 0; segment.executable && offset < segment.fileSize; ++offset) {
            found = found || nameAt(index, segment.address + offset) == "qsort@plt+0";
        }
    }

    EXPECT_TRUE(found);
}

TEST_F(SymbolIndexTest, AStrippedFileKeepsTheNamesForTheLoader) {
    const std::string stripped = directory.entry("stripped.so");
    fs::copy_file(KOLVAN_STRIPPED_LIBRARY, stripped);

    const SymbolIndex index(openObject(stripped));

    EXPECT_EQ("kolvan_outer+1", nameAt(index, outer + 1));
    EXPECT_NE(std::string(kHidden) + "+0", nameAt(index, hidden));
}

TEST_F(SymbolIndexTest, ASeparateFileBesideIsFoundByItsName) {
    const std::string stripped = directory.entry("stripped.so");
    fs::copy_file(KOLVAN_STRIPPED_LIBRARY, stripped);
    fs::copy_file(KOLVAN_SEPARATE_SYMBOLS, directory.entry("symbols.debug"));

    const SymbolIndex index(openObject(stripped));

    EXPECT_EQ(std::string(kHidden) + "+0", nameAt(index, hidden));
}

TEST_F(SymbolIndexTest, ASeparateFileOfAnotherBuildIsPassedOver) {
    const std::string stripped = directory.entry("stripped.so");
    fs::copy_file(KOLVAN_STRIPPED_LIBRARY, stripped);
    fs::copy_file(KOLVAN_SYMBOL_LIBRARY, directory.entry("symbols.debug"));

    const SymbolIndex index(openObject(stripped));

    EXPECT_NE(std::string(kHidden) + "+0", nameAt(index, hidden));
}

TEST_F(SymbolIndexTest, ASeparateFileBelowAnotherRootIsFoundByItsBuildId) {
    const std::string stripped = directory.entry("opt/stripped.so");
    fs::create_directory(directory.entry("opt"));
    fs::copy_file(KOLVAN_STRIPPED_LIBRARY, stripped);
    const auto object = openObject(stripped, "/opt/stripped.so", directory.path().string());
    ASSERT_EQ(40U, object->buildId().size());
    const fs::path place =
        directory.entry("usr/lib/debug/.build-id/" + object->buildId().substr(0, 2) + "/" +
                        object->buildId().substr(2) + ".debug");
    fs::create_directories(place.parent_path());
    fs::copy_file(KOLVAN_SEPARATE_SYMBOLS, place);

    const SymbolIndex index(object);

    EXPECT_EQ(std::string(kHidden) + "+0", nameAt(index, hidden));
}

}  // namespace
