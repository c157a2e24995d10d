#include "tests/companions/server/symbols/ElfImage.h"

#include <array>
#include <cstring>

namespace kolvan::test {

namespace {

template <typename Item>
std::string bytesOf(const Item& item) {
    return {reinterpret_cast<const char*>(&item), sizeof item};
}

std::string noteOf(const std::string& buildId) {
    if (buildId.empty()) {
        return {};
    }
    Elf64_Nhdr note{};
    note.n_namesz = sizeof ELF_NOTE_GNU;
    note.n_descsz = static_cast<Elf64_Word>(buildId.size());
    note.n_type = NT_GNU_BUILD_ID;
    std::string bytes = bytesOf(note) + std::string(ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) + buildId;
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

template <typename Header, typename Section, typename Symbol, typename Spoil>
std::string makeFile(const ElfImage& image, unsigned char bits, const Spoil& spoil) {
    std::string names(1, '\0');
    std::string symbols = bytesOf(Symbol{});
    for (const ElfImage::Function& function : image.functions) {
        Symbol symbol{};
        symbol.st_name = static_cast<Elf64_Word>(names.size());
        symbol.st_value = static_cast<decltype(symbol.st_value)>(function.address);
        symbol.st_size = static_cast<decltype(symbol.st_size)>(function.size);
        symbol.st_info = static_cast<unsigned char>(ELF64_ST_INFO(function.binding, function.type));
        symbol.st_shndx = function.section;
        symbols += bytesOf(symbol);
        names += function.name + '\0';
    }
    const std::array<std::string, ElfImage::Count> contents = {"", noteOf(image.buildId), symbols,
                                                               names};
    const std::array<Elf64_Word, ElfImage::Count> types = {SHT_NULL, SHT_NOTE, SHT_SYMTAB,
                                                           SHT_STRTAB};
    Header header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = bits;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_shentsize = sizeof(Section);
    header.e_shnum = ElfImage::Count;
    header.e_shoff = sizeof header;
    std::vector<Section> sections(ElfImage::Count);
    std::size_t offset = sizeof header + sections.size() * sizeof(Section);
    for (std::size_t place = 0; place < sections.size(); ++place) {
        sections[place].sh_type = types[place];
        sections[place].sh_offset = static_cast<decltype(sections[place].sh_offset)>(offset);
        sections[place].sh_size =
            static_cast<decltype(sections[place].sh_size)>(contents[place].size());
        sections[place].sh_link = place == ElfImage::Symbols ? ElfImage::Names : 0;
        offset += contents[place].size();
    }
    spoil(header, sections);
    std::string file = bytesOf(header);
    for (const Section& section : sections) {
        file += bytesOf(section);
    }
    for (const std::string& content : contents) {
        file += content;
    }
    return file;
}

}  // namespace

std::string ElfImage::file() const {
    return makeFile<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(*this, ELFCLASS64, spoil);
}

std::string ElfImage::file32() const {
    return makeFile<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(*this, ELFCLASS32, [](auto&, auto&) {});
}

}  // namespace kolvan::test
