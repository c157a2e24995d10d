#include "companions/profiler/symbols/Symbolizer.h"

#include "tests/profiler/symbols/LoadedLibrary.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using kolvan::profiler::ElfObject;
using kolvan::profiler::FileDescriptor;
using kolvan::profiler::KernelSymbols;
using kolvan::profiler::NamedCall;
using kolvan::profiler::PerfMap;
using kolvan::profiler::Symbolizer;
using kolvan::test::LoadedLibrary;
using kolvan::test::TemporaryDirectory;

std::shared_ptr<const ElfObject> openObject(const std::string& path) {
    return ElfObject::open(FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), path, "");
}

std::string text(std::optional<std::string_view> name) {
    return std::string(name.value_or("none"));
}

/// The file that a just-in-time compiler in this process would write, gone at the end.
class OwnPerfMap {
public:
    OwnPerfMap() : file(path, std::ios::binary) {}
    ~OwnPerfMap() {
        std::error_code ignored;  // what is not there need not be removed
        std::filesystem::remove(path, ignored);
    }
    OwnPerfMap(const OwnPerfMap&) = delete;
    OwnPerfMap& operator=(const OwnPerfMap&) = delete;

    void append(const std::string& bytes) { file << bytes << std::flush; }
    void replace(const std::string& bytes) {
        file.close();
        file.open(path, std::ios::binary | std::ios::trunc);
        append(bytes);
    }

private:
    const std::string path = "/tmp/perf-" + std::to_string(::getpid()) + ".map";
    std::ofstream file;
};

TEST(SymbolizerTest, AFunctionHasBothItsNames) {
    Symbolizer symbolizer(/*withSourceLines=*/false);
    const LoadedLibrary library(KOLVAN_SYMBOL_LIBRARY);

    const std::vector<NamedCall> calls = symbolizer.nameInObject(
        openObject(KOLVAN_SYMBOL_LIBRARY), library.addressFrom("kolvan_address_of_template") + 1);

    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ("long kolvan::fixture::twice<long>(long)", calls.front().name);
    EXPECT_EQ("_ZN6kolvan7fixture5twiceIlEET_S2_", calls.front().systemName);
}

/// Function, file without its directory, and line.
std::vector<std::string> described(const std::vector<NamedCall>& calls) {
    std::vector<std::string> texts;
    for (const NamedCall& call : calls) {
        texts.push_back(call.name + " " + std::filesystem::path(call.file).filename().string() +
                        ":" + std::to_string(call.line));
    }
    return texts;
}

const std::vector<std::string> kInlined = {"kolvan::fixture::innermost(int) symbol_fixture.cpp:101",
                                           "kolvan::fixture::middle(int) symbol_fixture.cpp:201",
                                           "kolvan_outer symbol_fixture.cpp:301"};

TEST(SymbolizerTest, InlinedFunctionsAreNamedWithTheirLines) {
    Symbolizer symbolizer(/*withSourceLines=*/true);
    const LoadedLibrary library(KOLVAN_SYMBOL_LIBRARY);

    EXPECT_EQ(kInlined, described(symbolizer.nameInObject(openObject(KOLVAN_SYMBOL_LIBRARY),
                                                          library.addressOf("kolvan_spot"))));
}

TEST(SymbolizerTest, LinesAreReadFromASeparateFile) {
    const TemporaryDirectory directory;
    const std::string stripped = directory.entry("stripped.so");
    std::filesystem::copy_file(KOLVAN_STRIPPED_LIBRARY, stripped);
    std::filesystem::copy_file(KOLVAN_SEPARATE_SYMBOLS, directory.entry("symbols.debug"));
    Symbolizer symbolizer(/*withSourceLines=*/true);
    const LoadedLibrary library(KOLVAN_SYMBOL_LIBRARY);

    EXPECT_EQ(kInlined, described(symbolizer.nameInObject(openObject(stripped),
                                                          library.addressOf("kolvan_spot"))));
}

TEST(SymbolizerTest, WithoutDebugInformationThereIsTheFunctionAlone) {
    const TemporaryDirectory directory;
    const std::string stripped = directory.entry("stripped.so");
    std::filesystem::copy_file(KOLVAN_STRIPPED_LIBRARY, stripped);
    Symbolizer symbolizer(/*withSourceLines=*/true);
    const LoadedLibrary library(KOLVAN_SYMBOL_LIBRARY);

    EXPECT_EQ((std::vector<std::string>{"kolvan_outer :0"}),
              described(symbolizer.nameInObject(openObject(stripped),
                                                library.addressOf("kolvan_outer"))));
}

TEST(SymbolizerTest, WhatHasNoNameHasNoCalls) {
    Symbolizer symbolizer(/*withSourceLines=*/false);

    EXPECT_TRUE(symbolizer.nameInObject(openObject(KOLVAN_SYMBOL_LIBRARY), 1).empty());
    EXPECT_TRUE(symbolizer.nameInKernel(1).empty());
    EXPECT_TRUE(symbolizer.nameInProcess(::getpid(), 1).empty());
}

TEST(SymbolizerTest, WrittenCodeIsNamedByTheFileOfItsProcess) {
    OwnPerfMap file;
    file.append("7f0000001000 20 Interpreter::run\n");
    Symbolizer symbolizer(/*withSourceLines=*/false);

    const std::vector<NamedCall> calls = symbolizer.nameInProcess(::getpid(), 0x7F000000101F);

    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ("Interpreter::run", calls.front().name);
}

TEST(PerfMapTest, LinesThatAreAddedLaterAreRead) {
    OwnPerfMap file;
    PerfMap map(::getpid());
    file.append("1000 10 first\n1010 10 sec");
    map.refresh();

    EXPECT_EQ("first", text(map.find(0x100F)));
    EXPECT_EQ("none", text(map.find(0x1010)));

    file.append("ond function\n");
    map.refresh();

    EXPECT_EQ("second function", text(map.find(0x1010)));
    EXPECT_EQ("none", text(map.find(0x1020)));
}

TEST(PerfMapTest, CodeThatTakesAnothersPlaceHasTheName) {
    OwnPerfMap file;
    PerfMap map(::getpid());
    file.append("1000 100 old\n0x1010 10 new\n");
    map.refresh();

    EXPECT_EQ("new", text(map.find(0x1018)));
    EXPECT_EQ("none", text(map.find(0x1008)));
}

TEST(PerfMapTest, AFileThatBeginsAgainIsReadAgain) {
    OwnPerfMap file;
    PerfMap map(::getpid());
    file.append("1000 10 first\n2000 10 second\n");
    map.refresh();
    file.replace("3000 10 third\n");
    map.refresh();

    EXPECT_EQ("none", text(map.find(0x1000)));
    EXPECT_EQ("third", text(map.find(0x3000)));
}

TEST(PerfMapTest, LinesThatMakeNoSenseArePassedOver) {
    OwnPerfMap file;
    PerfMap map(::getpid());
    file.append("\n\n1000\n1000 10\n1000 0 empty\nffffffffffffffff 10 over\nxyz 10 name\n" +
                std::string(100'000, '1') + "\n4000 10 good\n");
    map.refresh();

    EXPECT_EQ("none", text(map.find(0x1000)));
    EXPECT_EQ("good", text(map.find(0x4000)));
}

TEST(KernelSymbolsTest, AFunctionReachesToTheNext) {
    const TemporaryDirectory directory;
    const KernelSymbols symbols(directory.write("kallsyms",
                                                "ffffffff81000000 T _stext\n"
                                                "ffffffff81000010 D data\n"
                                                "ffffffff81000020 t do_work\n"
                                                "ffffffffc0000000 t of_module\t[module]\n"));

    EXPECT_TRUE(symbols.available());
    EXPECT_EQ("none", text(symbols.find(0xffffffff80ffffff)));
    EXPECT_EQ("_stext", text(symbols.find(0xffffffff8100001f)));
    EXPECT_EQ("do_work", text(symbols.find(0xffffffff81000020)));
    EXPECT_EQ("of_module", text(symbols.find(0xffffffffc0000001)));
}

TEST(KernelSymbolsTest, ZerosAreNoAddresses) {
    const TemporaryDirectory directory;
    const KernelSymbols symbols(directory.write("kallsyms",
                                                "0000000000000000 T _stext\n"
                                                "0000000000000000 t do_work\n"));

    EXPECT_FALSE(symbols.available());
    EXPECT_EQ("none", text(symbols.find(0xffffffff81000020)));
}

TEST(KernelSymbolsTest, AListThatIsNotThereIsEmpty) {
    EXPECT_FALSE(KernelSymbols("/nonexistent").available());
}

}  // namespace
