#include "companions/server/symbols/SymbolFile.h"

#include "companions/demangle/Demangle.h"
#include "companions/server/base/Hex.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::server::symbols {

namespace {

/// The same things with 32 and with 64 bits.
struct Elf32 {
    using Header = Elf32_Ehdr;
    using Section = Elf32_Shdr;
    using Symbol = Elf32_Sym;
};
struct Elf64 {
    using Header = Elf64_Ehdr;
    using Section = Elf64_Shdr;
    using Symbol = Elf64_Sym;
};

constexpr std::size_t kSymbolsAtOnce = 4096;
constexpr std::size_t kShortName = 512;
// How far to look back for a function that encloses others, as hand-written assembly has them.
constexpr std::size_t kMostEnclosed = 16;

template <typename Item>
std::span<char> bytesOf(Item& item) {
    return {reinterpret_cast<char*>(&item), sizeof item};
}

std::uint8_t rankOf(unsigned binding) {
    return binding == STB_GLOBAL || binding == STB_GNU_UNIQUE ? 0 : binding == STB_WEAK ? 1 : 2;
}

std::uint64_t roundUp(std::uint64_t number, std::uint64_t alignment) {
    return (number + alignment - 1) / alignment * alignment;
}

[[noreturn]] void refuse(const std::string& sentence) {
    throw UnreadableSymbols(sentence);
}

}  // namespace

SymbolFile::SymbolFile(basekit2::UniqueFd openFile, const SymbolLimits& symbolLimits)
    : file(std::move(openFile)), limits(symbolLimits) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), "read symbols");
    }
    fileSize = static_cast<std::uint64_t>(status.st_size);
    std::array<char, EI_NIDENT> mark{};
    if (!holds(0, mark.size())) {
        refuse("This is no ELF file.");
    }
    read(0, mark);
    if (std::memcmp(mark.data(), ELFMAG, SELFMAG) != 0) {
        refuse("This is no ELF file.");
    }
    if (mark[EI_DATA] != ELFDATA2LSB) {
        refuse("This ELF file is for machines with another order of bytes.");
    }
    if (mark[EI_CLASS] == ELFCLASS64) {
        readAs<Elf64>();
    } else if (mark[EI_CLASS] == ELFCLASS32) {
        readAs<Elf32>();
    } else {
        refuse("This ELF file is damaged: it has neither 32 nor 64 bits.");
    }
}

template <typename Types>
void SymbolFile::readAs() {
    const std::vector<Section> sections = readSections<Types>();
    for (const Section& section : sections) {
        if (section.type == SHT_NOTE && id.empty()) {
            readBuildId(section);
        }
    }
    for (const std::uint32_t wanted : std::array<std::uint32_t, 2>{SHT_SYMTAB, SHT_DYNSYM}) {
        for (const Section& table : sections) {
            if (table.type == wanted && functions.empty() && table.link < sections.size() &&
                sections[table.link].type == SHT_STRTAB) {
                names = sections[table.link];
                readFunctions<Types>(table);
            }
        }
    }
    arrange();
}

/// Those that the file holds. Others are as if they had nothing in them.
template <typename Types>
std::vector<SymbolFile::Section> SymbolFile::readSections() const {
    using Header = typename Types::Section;
    typename Types::Header header{};
    if (!holds(0, sizeof header)) {
        refuse("This ELF file is cut off.");
    }
    read(0, bytesOf(header));
    if (header.e_shoff == 0) {
        return {};
    }
    Header first{};
    if (header.e_shentsize != sizeof first || !holds(header.e_shoff, sizeof first)) {
        refuse("This ELF file is damaged: its sections are not where it says.");
    }
    read(header.e_shoff, bytesOf(first));
    // The first one says how many there are when the number does not fit into the header.
    const std::uint64_t count = header.e_shnum != 0 ? header.e_shnum : first.sh_size;
    if (count > limits.sections) {
        refuse("This ELF file has more than " + std::to_string(limits.sections) + " sections.");
    }
    if (!holds(header.e_shoff, count * sizeof first)) {
        refuse("This ELF file is cut off.");
    }
    std::vector<Header> raw(count);
    read(header.e_shoff, {reinterpret_cast<char*>(raw.data()), count * sizeof first});
    std::vector<Section> sections;
    sections.reserve(count);
    for (const Header& each : raw) {
        const bool held = each.sh_type != SHT_NOBITS && holds(each.sh_offset, each.sh_size);
        sections.push_back({held ? each.sh_type : std::uint32_t{SHT_NULL}, each.sh_link,
                            each.sh_offset, each.sh_size, each.sh_addralign});
    }
    return sections;
}

void SymbolFile::readBuildId(const Section& notes) {
    if (notes.size > limits.noteBytes) {
        return;
    }
    std::string bytes(notes.size, '\0');
    read(notes.offset, bytes);
    const std::uint64_t alignment = notes.alignment == 8 ? 8 : 4;
    for (std::uint64_t begin = 0; begin + sizeof(Elf64_Nhdr) <= bytes.size();) {
        Elf64_Nhdr note{};  // the same with 32 bits
        std::memcpy(&note, bytes.data() + begin, sizeof note);
        const std::uint64_t name = begin + sizeof note;
        const std::uint64_t content = roundUp(name + note.n_namesz, alignment);
        const std::uint64_t end = content + note.n_descsz;
        if (end > bytes.size()) {
            return;
        }
        if (note.n_type == NT_GNU_BUILD_ID && note.n_descsz > 0 &&
            bytes.compare(name, note.n_namesz, ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0) {
            const std::string_view found(bytes.data() + content, note.n_descsz);
            id = toHex(std::as_bytes(std::span(found)));
            return;
        }
        begin = roundUp(end, alignment);
    }
}

template <typename Types>
void SymbolFile::readFunctions(const Section& table) {
    using Symbol = typename Types::Symbol;
    const std::uint64_t count = table.size / sizeof(Symbol);
    if (count > limits.symbols) {
        refuse("This ELF file has more than " + std::to_string(limits.symbols) + " symbols.");
    }
    std::vector<Symbol> piece;
    for (std::uint64_t begin = 0; begin < count; begin += piece.size()) {
        piece.resize(std::min<std::uint64_t>(kSymbolsAtOnce, count - begin));
        read(table.offset + begin * sizeof(Symbol),
             {reinterpret_cast<char*>(piece.data()), piece.size() * sizeof(Symbol)});
        for (const Symbol& symbol : piece) {
            const unsigned type = ELF64_ST_TYPE(symbol.st_info);  // the same with 32 bits
            const std::uint64_t address = symbol.st_value;
            const std::uint64_t size = symbol.st_size;
            // One without a size does not say where the function ends.
            if ((type == STT_FUNC || type == STT_GNU_IFUNC) && symbol.st_shndx != SHN_UNDEF &&
                symbol.st_name != 0 && size != 0 &&
                size <= std::numeric_limits<std::uint64_t>::max() - address) {
                functions.push_back({address, address + size, symbol.st_name,
                                     rankOf(ELF64_ST_BIND(symbol.st_info))});
            }
        }
    }
}

/// Where several names stand for one address, a global one is preferred to a weak one, and that to
/// a local one.
void SymbolFile::arrange() {
    std::sort(functions.begin(), functions.end(), [](const Function& left, const Function& right) {
        return std::tie(left.begin, left.rank, left.name) <
               std::tie(right.begin, right.rank, right.name);
    });
    const auto end = std::unique(
        functions.begin(), functions.end(),
        [](const Function& left, const Function& right) { return left.begin == right.begin; });
    functions.erase(end, functions.end());
}

std::vector<std::string> SymbolFile::namesAt(std::span<const std::uint64_t> addresses) const {
    std::vector<std::string> result(addresses.size());
    const Function* last = nullptr;
    std::string name;
    std::size_t named = 0;
    std::size_t bytes = 0;
    for (std::size_t index = 0; index < addresses.size(); ++index) {
        const Function* const function = find(addresses[index]);
        if (function == nullptr) {
            continue;
        }
        if (function != last) {
            if (++named > limits.named) {
                break;
            }
            name = demangle(nameOf(*function));
            last = function;
        }
        bytes += name.size();
        if (bytes > limits.allNameBytes) {
            break;
        }
        result[index] = name;
    }
    return result;
}

const SymbolFile::Function* SymbolFile::find(std::uint64_t address) const noexcept {
    auto place = std::partition_point(
        functions.begin(), functions.end(),
        [address](const Function& function) { return function.begin <= address; });
    for (std::size_t count = 0; count < kMostEnclosed && place != functions.begin(); ++count) {
        --place;
        if (address < place->end) {
            return &*place;
        }
    }
    return nullptr;
}

std::string SymbolFile::nameOf(const Function& function) const {
    if (function.name >= names.size) {
        return {};
    }
    const std::uint64_t room = names.size - function.name;
    // Nearly all names are short.
    for (const std::size_t length : {std::min(kShortName, limits.nameBytes), limits.nameBytes}) {
        std::string text(std::min<std::uint64_t>(length, room), '\0');
        read(names.offset + function.name, text);
        const std::size_t end = text.find('\0');
        if (end != std::string::npos) {
            text.resize(end);
            return text;
        }
    }
    return {};
}

void SymbolFile::read(std::uint64_t offset, std::span<char> buffer) const {
    std::size_t done = 0;
    while (done < buffer.size()) {
        const ssize_t count = ::pread(file.get(), buffer.data() + done, buffer.size() - done,
                                      static_cast<off_t>(offset + done));
        if (count < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "read symbols");
        }
        if (count == 0) {
            refuse("This ELF file has become shorter.");
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0U;
    }
}

bool SymbolFile::holds(std::uint64_t offset, std::uint64_t length) const noexcept {
    return offset <= fileSize && length <= fileSize - offset;
}

}  // namespace kolvan::server::symbols
