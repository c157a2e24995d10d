#include "companions/server/symbols/SymbolFile.h"

#include "companions/profiler/objects/ElfObject.h"
#include "tests/companions/server/symbols/ElfImage.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kolvan::server::symbols {
namespace {

using kolvan::test::ElfImage;
using Names = std::vector<std::string>;

basekit2::UniqueFd fileWith(const std::string& content) {
    basekit2::UniqueFd file(::memfd_create("symbols", MFD_CLOEXEC));
    if (!file || ::write(file.get(), content.data(), content.size()) !=
                     static_cast<ssize_t>(content.size())) {
        throw std::runtime_error("no memory for a file");
    }
    return file;
}

SymbolFile symbolsOf(const ElfImage& image, const SymbolLimits& limits = {}) {
    return SymbolFile(fileWith(image.file()), limits);
}

/// What is said of a file that is refused; nothing when it is read.
std::string refusal(const std::string& content, const SymbolLimits& limits = {}) {
    try {
        (void)SymbolFile(fileWith(content), limits);
    } catch (const UnreadableSymbols& error) {
        return error.what();
    }
    return {};
}

Names namesAt(const SymbolFile& file, const std::vector<std::uint64_t>& addresses) {
    return file.namesAt(addresses);
}

/// The library with names of every kind, loaded, to ask it where its functions are.
class MappedLibrary {
public:
    MappedLibrary() : handle(::dlopen(KOLVAN_SYMBOL_LIBRARY, RTLD_NOW)) {
        if (handle == nullptr || ::dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) {
            throw std::runtime_error("the library does not load");
        }
    }
    ~MappedLibrary() { (void)::dlclose(handle); }
    MappedLibrary(const MappedLibrary&) = delete;
    MappedLibrary& operator=(const MappedLibrary&) = delete;

    /// As the file counts it.
    std::uint64_t addressBy(const char* function) const {
        const auto tell = reinterpret_cast<const void* (*)()>(::dlsym(handle, function));
        return reinterpret_cast<std::uint64_t>(tell()) - map->l_addr;
    }

private:
    void* handle;
    link_map* map = nullptr;
};

basekit2::UniqueFd opened(const char* path) {
    return basekit2::UniqueFd(::open(path, O_RDONLY | O_CLOEXEC));
}

class SymbolsOfLibraryTest : public testing::TestWithParam<const char*> {};

TEST_P(SymbolsOfLibraryTest, NamesFunctionsAsTheyStandInTheSource) {
    const MappedLibrary library;
    const SymbolFile file(opened(GetParam()));

    EXPECT_EQ(Names({"kolvan::fixture::hidden(int)"}),
              namesAt(file, {library.addressBy("kolvan_address_of_hidden")}));
    EXPECT_EQ(Names({"kolvan::fixture::local(int)"}),
              namesAt(file, {library.addressBy("kolvan_address_of_local") + 1}));
    EXPECT_EQ(Names({"long kolvan::fixture::twice<long>(long)"}),
              namesAt(file, {library.addressBy("kolvan_address_of_template")}));
}

TEST_P(SymbolsOfLibraryTest, HasTheBuildIdThatTheProfilerSees) {
    const auto object = profiler::ElfObject::open(
        profiler::FileDescriptor(::open(KOLVAN_SYMBOL_LIBRARY, O_RDONLY | O_CLOEXEC)), "", "");

    EXPECT_EQ(40U, object->buildId().size());
    EXPECT_EQ(object->buildId(), SymbolFile(opened(GetParam())).buildId());
}

INSTANTIATE_TEST_SUITE_P(WholeAndSeparate, SymbolsOfLibraryTest,
                         testing::Values(KOLVAN_SYMBOL_LIBRARY, KOLVAN_SEPARATE_SYMBOLS),
                         [](const auto& tested) {
                             return tested.index == 0 ? "Whole" : "Separate";
                         });

TEST(SymbolFileTest, StrippedLibraryNamesWhatOthersMayCall) {
    const MappedLibrary library;
    const SymbolFile file(opened(KOLVAN_STRIPPED_LIBRARY));

    EXPECT_EQ(Names({""}), namesAt(file, {library.addressBy("kolvan_address_of_hidden")}));
    EXPECT_LT(0U, file.size());
}

TEST(SymbolFileTest, FunctionReachesFromItsFirstToItsLastByte) {
    const SymbolFile file = symbolsOf({"id", {{"one", 0x100, 0x10}, {"two", 0x200, 1}}});

    EXPECT_EQ(Names({"", "one", "one", "", "", "two", ""}),
              namesAt(file, {0xFF, 0x100, 0x10F, 0x110, 0x1FF, 0x200, 0x201}));
    EXPECT_EQ(2U, file.size());
}

TEST(SymbolFileTest, FileOfThirtyTwoBitsIsReadTheSame) {
    const ElfImage image{"\x01\xFF", {{"one", 0x100, 0x10}, {"two", 0xFFFFFF00, 0x100}}};
    const SymbolFile file(fileWith(image.file32()));

    EXPECT_EQ("01ff", file.buildId());
    EXPECT_EQ(Names({"one", "two"}), namesAt(file, {0x100, 0xFFFFFFFE}));
}

TEST(SymbolFileTest, GlobalNameIsPreferredToWeakAndThatToLocal) {
    const SymbolFile file = symbolsOf({"id",
                                       {{"local", 0x100, 8, STB_LOCAL},
                                        {"weak", 0x100, 8, STB_WEAK},
                                        {"global", 0x100, 8},
                                        {"local2", 0x200, 8, STB_LOCAL},
                                        {"weak2", 0x200, 8, STB_WEAK}}});

    EXPECT_EQ(Names({"global", "weak2"}), namesAt(file, {0x100, 0x200}));
}

TEST(SymbolFileTest, CodeBehindAnEnclosedFunctionIsTheEnclosingOnes) {
    const SymbolFile file = symbolsOf({"id", {{"outer", 0x100, 0x100}, {"inner", 0x140, 0x10}}});

    EXPECT_EQ(Names({"outer", "inner", "outer"}), namesAt(file, {0x13F, 0x140, 0x150}));
}

TEST(SymbolFileTest, WhatIsNoFunctionOrElsewhereNamesNothing) {
    const SymbolFile file = symbolsOf({"id",
                                       {{"data", 0x100, 8, STB_GLOBAL, STT_OBJECT},
                                        {"elsewhere", 0x200, 8, STB_GLOBAL, STT_FUNC, SHN_UNDEF},
                                        {"endless", 0x300, 0},
                                        {"beyond", ~std::uint64_t{0} - 4, 8}}});

    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(Names({"", "", "", ""}), namesAt(file, {0x100, 0x200, 0x300, ~std::uint64_t{0}}));
}

TEST(SymbolFileTest, WhatIsNoElfFileIsRefused) {
    EXPECT_EQ("This is no ELF file.", refusal(""));
    EXPECT_EQ("This is no ELF file.", refusal("\x7F"
                                              "ELF"));
    EXPECT_EQ("This is no ELF file.", refusal("a text that is long enough to have a mark"));
}

TEST(SymbolFileTest, FileOfAnotherKindOfMachineIsRefused) {
    ElfImage image;
    image.spoil = [](Elf64_Ehdr& header, auto&) { header.e_ident[EI_DATA] = ELFDATA2MSB; };
    EXPECT_EQ("This ELF file is for machines with another order of bytes.", refusal(image.file()));

    image.spoil = [](Elf64_Ehdr& header, auto&) { header.e_ident[EI_CLASS] = 7; };
    EXPECT_EQ("This ELF file is damaged: it has neither 32 nor 64 bits.", refusal(image.file()));
}

TEST(SymbolFileTest, FileThatIsCutOffIsNeverReadBeyondItsEnd) {
    const std::string whole = ElfImage{"some id", {{"one", 0x100, 0x10}}}.file();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        try {
            const SymbolFile file(fileWith(whole.substr(0, length)));
            EXPECT_EQ(0U, file.size()) << length;
        } catch (const UnreadableSymbols& error) {
            EXPECT_EQ('.', std::string_view(error.what()).back()) << length;
        }
    }
}

TEST(SymbolFileTest, MoreSectionsThanIsTakenAreRefusedWhereverTheirNumberStands) {
    SymbolLimits limits;
    limits.sections = 3;
    EXPECT_EQ("This ELF file has more than 3 sections.", refusal(ElfImage{}.file(), limits));

    ElfImage image;
    image.spoil = [](Elf64_Ehdr& header, std::vector<Elf64_Shdr>& sections) {
        header.e_shnum = 0;
        sections[0].sh_size = std::uint64_t{1} << 58;  // times 64 it is nothing
    };
    EXPECT_EQ("This ELF file has more than 100000 sections.", refusal(image.file()));
}

TEST(SymbolFileTest, NumberOfSectionsMayStandInTheFirstOne) {
    ElfImage image{"id", {{"one", 0x100, 8}}};
    image.spoil = [](Elf64_Ehdr& header, std::vector<Elf64_Shdr>& sections) {
        header.e_shnum = 0;
        sections[0].sh_size = ElfImage::Count;
    };

    EXPECT_EQ(1U, symbolsOf(image).size());
}

TEST(SymbolFileTest, SectionsThatAreNotThereAreRefused) {
    ElfImage image;
    image.spoil = [](Elf64_Ehdr& header, auto&) { header.e_shoff = ~std::uint64_t{0} - 8; };
    EXPECT_EQ("This ELF file is damaged: its sections are not where it says.",
              refusal(image.file()));

    image.spoil = [](Elf64_Ehdr& header, auto&) { header.e_shentsize = 1; };
    EXPECT_EQ("This ELF file is damaged: its sections are not where it says.",
              refusal(image.file()));

    image.spoil = [](Elf64_Ehdr& header, auto&) { header.e_shnum = 1000; };
    EXPECT_EQ("This ELF file is cut off.", refusal(image.file()));
}

TEST(SymbolFileTest, TableThatIsNotInTheFileIsPassedOver) {
    for (const auto& [offset, size] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {~std::uint64_t{0}, 24}, {0, ~std::uint64_t{0}}, {1 << 20, 24}}) {
        ElfImage image{"id", {{"one", 0x100, 8}}};
        image.spoil = [&](auto&, std::vector<Elf64_Shdr>& sections) {
            sections[ElfImage::Symbols].sh_offset = offset;
            sections[ElfImage::Symbols].sh_size = size;
        };
        EXPECT_EQ(0U, symbolsOf(image).size());
    }
}

TEST(SymbolFileTest, TableWithoutNamesIsPassedOver) {
    for (const std::uint32_t link : {0U, 1U, 4U, ~0U}) {
        ElfImage image{"id", {{"one", 0x100, 8}}};
        image.spoil = [&](auto&, std::vector<Elf64_Shdr>& sections) {
            sections[ElfImage::Symbols].sh_link = link;
        };
        EXPECT_EQ(0U, symbolsOf(image).size()) << link;
    }
}

TEST(SymbolFileTest, NameThatDoesNotEndIsNone) {
    ElfImage image{"id", {{"one", 0x100, 8}, {"two", 0x200, 8}}};
    image.spoil = [&](auto&, std::vector<Elf64_Shdr>& sections) {
        sections[ElfImage::Names].sh_size = 7;  // "", "one", "tw"
    };

    EXPECT_EQ(Names({"one", ""}), namesAt(symbolsOf(image), {0x100, 0x200}));
}

TEST(SymbolFileTest, NameThatIsTooLongIsNone) {
    SymbolLimits limits;
    limits.nameBytes = 1000;
    const SymbolFile file = symbolsOf(
        {"id", {{std::string(999, 'a'), 0x100, 8}, {std::string(1000, 'b'), 0x200, 8}}}, limits);

    EXPECT_EQ(Names({std::string(999, 'a'), ""}), namesAt(file, {0x100, 0x200}));
}

TEST(SymbolFileTest, MoreSymbolsThanIsTakenAreRefused) {
    SymbolLimits limits;
    limits.symbols = 2;  // the first one of each table is none

    EXPECT_EQ("", refusal(ElfImage{"id", {{"one", 1, 1}}}.file(), limits));
    EXPECT_EQ("This ELF file has more than 2 symbols.",
              refusal(ElfImage{"id", {{"one", 1, 1}, {"two", 2, 1}}}.file(), limits));
}

TEST(SymbolFileTest, NamesEndWhereTheyWouldTakeTooMuch) {
    const ElfImage image{"id", {{"one", 0x100, 8}, {"two", 0x200, 8}, {"three", 0x300, 8}}};
    SymbolLimits limits;
    limits.named = 2;
    EXPECT_EQ(Names({"one", "one", "two", ""}),
              namesAt(symbolsOf(image, limits), {0x100, 0x101, 0x200, 0x300}));

    limits = {};
    limits.allNameBytes = 9;
    EXPECT_EQ(Names({"one", "one", "two", ""}),
              namesAt(symbolsOf(image, limits), {0x100, 0x101, 0x200, 0x300}));
}

TEST(SymbolFileTest, FileWithoutANoteHasNoBuildId) {
    EXPECT_EQ("", symbolsOf({"", {{"one", 1, 1}}}).buildId());
}

TEST(SymbolFileTest, NotesThatClaimMoreThanThereIsHoldNoBuildId) {
    ElfImage image{"0123456789", {}};
    image.spoil = [](auto&, std::vector<Elf64_Shdr>& sections) {
        sections[ElfImage::Note].sh_size -= 4;
    };
    EXPECT_EQ("", symbolsOf(image).buildId());

    SymbolLimits limits;
    limits.noteBytes = 8;
    EXPECT_EQ("", symbolsOf({"0123456789", {}}, limits).buildId());
}

}  // namespace
}  // namespace kolvan::server::symbols
