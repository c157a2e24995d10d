#include "companions/profiler/symbols/SymbolIndex.h"

#include "companions/profiler/objects/Sections.h"

#include <gelf.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostSymbols = 4'000'000;  // 32 bytes each; a large browser has a million
constexpr std::uint64_t kPltEntrySize = 16;
// How far to look back for a function that encloses others, as hand-written assembly has them.
constexpr std::size_t kMostEnclosed = 16;

bool isCode(unsigned type) {
    // Functions that are written in assembly often have no type.
    return type == STT_FUNC || type == STT_GNU_IFUNC || type == STT_NOTYPE;
}

std::uint8_t rankOf(unsigned binding) {
    return binding == STB_GLOBAL || binding == STB_GNU_UNIQUE ? 0 : binding == STB_WEAK ? 1 : 2;
}

/// Calls `use` with the header of each section and the section.
template <typename Use>
void forEachSection(Elf* elf, Use use) {
    for (Elf_Scn* section = ::elf_nextscn(elf, nullptr); section != nullptr;
         section = ::elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (::gelf_getshdr(section, &header) != nullptr) {
            use(header, section);
        }
    }
}

/// Entries of a table; 0 where there is none.
int entryCount(Elf* elf, const Elf_Data* data, Elf_Type type) {
    const std::size_t entrySize = ::gelf_fsize(elf, type, 1, EV_CURRENT);
    if (data == nullptr || data->d_buf == nullptr || entrySize == 0) {
        return 0;
    }
    return static_cast<int>(
        std::min<std::size_t>(data->d_size / entrySize, std::numeric_limits<int>::max()));
}

/// Where the section of that name begins, when it has room for `entries`, `reserved` of them in
/// front of the first one.
std::optional<std::uint64_t> pltBegin(Elf* elf, const char* name, std::uint64_t entries,
                                      std::uint64_t reserved) {
    Elf_Scn* const section = findSection(elf, name);
    GElf_Shdr header;
    if (section == nullptr || ::gelf_getshdr(section, &header) == nullptr ||
        header.sh_size != (entries + reserved) * kPltEntrySize) {
        return std::nullopt;
    }
    return header.sh_addr + reserved * kPltEntrySize;
}

}  // namespace

SymbolIndex::SymbolIndex(std::shared_ptr<const ElfObject> file) : object(std::move(file)) {
    addTable(object->elf(), SHT_SYMTAB);
    if (symbols.empty() && object->debugFile() != nullptr) {
        addTable(object->debugFile()->elf(), SHT_SYMTAB);
    }
    addTable(object->elf(), SHT_DYNSYM);
    if (object->isNative()) {
        addPltEntries(object->elf());
    }
    arrange();
}

std::optional<SymbolIndex::Match> SymbolIndex::find(std::uint64_t address) const noexcept {
    auto place =
        std::partition_point(symbols.begin(), symbols.end(),
                             [address](const Symbol& symbol) { return symbol.address <= address; });
    for (std::size_t count = 0; count < kMostEnclosed && place != symbols.begin(); ++count) {
        --place;
        if (address < place->end) {
            return Match{place->name, address - place->address};
        }
    }
    return std::nullopt;
}

void SymbolIndex::addTable(Elf* elf, unsigned type) {
    std::vector<std::uint64_t> codeEnds;  // by number of the section; 0 for data
    forEachSection(elf, [&codeEnds](const GElf_Shdr& header, Elf_Scn* section) {
        codeEnds.resize(::elf_ndxscn(section) + 1);
        codeEnds.back() =
            (header.sh_flags & SHF_EXECINSTR) != 0 ? header.sh_addr + header.sh_size : 0;
    });
    forEachSection(elf, [&](const GElf_Shdr& header, Elf_Scn* section) {
        Elf_Data* const data = header.sh_type == type ? ::elf_getdata(section, nullptr) : nullptr;
        const int count = entryCount(elf, data, ELF_T_SYM);
        for (int index = 0; index < count && symbols.size() < kMostSymbols; ++index) {
            GElf_Sym symbol;
            if (::gelf_getsym(data, index, &symbol) != nullptr &&
                symbol.st_shndx < codeEnds.size() && isCode(GELF_ST_TYPE(symbol.st_info))) {
                add(symbol.st_value, symbol.st_size, codeEnds[symbol.st_shndx],
                    rankOf(GELF_ST_BIND(symbol.st_info)),
                    ::elf_strptr(elf, header.sh_link, symbol.st_name));
            }
        }
    });
}

void SymbolIndex::addPltEntries(Elf* elf) {
    Elf_Scn* const section = findSection(elf, ".rela.plt");
    GElf_Shdr header;
    GElf_Shdr table;
    if (section == nullptr || ::gelf_getshdr(section, &header) == nullptr ||
        ::gelf_getshdr(::elf_getscn(elf, header.sh_link), &table) == nullptr) {
        return;
    }
    Elf_Data* const relocations = ::elf_getdata(section, nullptr);
    Elf_Data* const names = ::elf_getdata(::elf_getscn(elf, header.sh_link), nullptr);
    const int count = entryCount(elf, relocations, ELF_T_RELA);
    const auto entries = static_cast<std::uint64_t>(count);
    auto begin = pltBegin(elf, ".plt.sec", entries, 0);
    if (!begin) {
        begin = pltBegin(elf, ".plt", entries, 1);
    }
    if (!begin || names == nullptr) {
        return;
    }
    for (int index = 0; index < count && symbols.size() < kMostSymbols; ++index) {
        const std::uint64_t address = *begin + static_cast<std::uint64_t>(index) * kPltEntrySize;
        GElf_Rela relocation;
        GElf_Sym symbol;
        if (::gelf_getrela(relocations, index, &relocation) == nullptr ||
            ::gelf_getsym(names, static_cast<int>(GELF_R_SYM(relocation.r_info)), &symbol) ==
                nullptr) {
            continue;
        }
        const char* const name = ::elf_strptr(elf, table.sh_link, symbol.st_name);
        if (name != nullptr && *name != '\0') {
            ownNames.push_back(std::string(name) + "@plt");
            add(address, kPltEntrySize, address + kPltEntrySize, 0, ownNames.back().c_str());
        }
    }
}

void SymbolIndex::add(std::uint64_t address, std::uint64_t size, std::uint64_t codeEnd,
                      std::uint8_t rank, const char* name) {
    if (name == nullptr || *name == '\0' || address >= codeEnd) {
        return;
    }
    const bool sized = size > 0 && size <= codeEnd - address;
    symbols.push_back({.address = address,
                       .end = sized ? address + size : codeEnd,
                       .name = name,
                       .rank = rank,
                       .sized = sized});
}

void SymbolIndex::arrange() {
    std::sort(symbols.begin(), symbols.end(), [](const Symbol& left, const Symbol& right) {
        if (left.address != right.address) {
            return left.address < right.address;
        }
        if (left.sized != right.sized) {
            return left.sized;
        }
        if (left.rank != right.rank) {
            return left.rank < right.rank;
        }
        const std::size_t leftLength = std::strlen(left.name);
        const std::size_t rightLength = std::strlen(right.name);
        return leftLength != rightLength ? leftLength < rightLength
                                         : std::strcmp(left.name, right.name) < 0;
    });
    symbols.erase(std::unique(symbols.begin(), symbols.end(),
                              [](const Symbol& left, const Symbol& right) {
                                  return left.address == right.address;
                              }),
                  symbols.end());
    // A label within a function is no function.
    std::uint64_t sizedEnd = 0;
    std::erase_if(symbols, [&sizedEnd](const Symbol& symbol) {
        if (!symbol.sized) {
            return symbol.address < sizedEnd;
        }
        sizedEnd = std::max(sizedEnd, symbol.end);
        return false;
    });
    for (std::size_t index = 0; index + 1 < symbols.size(); ++index) {
        if (!symbols[index].sized) {
            symbols[index].end = std::min(symbols[index].end, symbols[index + 1].address);
        }
    }
    symbols.shrink_to_fit();
}

}  // namespace kolvan::profiler
