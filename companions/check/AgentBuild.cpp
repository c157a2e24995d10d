#include "companions/check/AgentBuild.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

#include <elf.h>

namespace kolvan::check {

namespace {

// A structure at a place of the file; none where the file ends before.
template <typename Structure>
std::optional<Structure> readAt(std::istream& file, std::size_t offset) {
    Structure structure{};
    file.clear();
    file.seekg(static_cast<std::streamoff>(offset));
    if (!file.read(reinterpret_cast<char*>(&structure), sizeof(structure))) {
        return std::nullopt;
    }
    return structure;
}

std::string textAt(std::istream& file, std::size_t offset, std::size_t size) {
    constexpr std::size_t kLongest = 64;  // a build ID has 16 or 20 bytes, its owner's name 4
    std::string text(std::min(size, kLongest), '\0');
    file.clear();
    file.seekg(static_cast<std::streamoff>(offset));
    if (!file.read(text.data(), static_cast<std::streamsize>(text.size()))) {
        text.clear();
    }
    return text;
}

std::string hexadecimal(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0x0FU];
    }
    return text;
}

constexpr std::size_t padded(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

// The build ID among the notes of one segment; empty when it is not there.
std::string buildIdIn(std::istream& file, const Elf64_Phdr& segment) {
    const std::string owner = std::string("GNU") + '\0';
    std::size_t offset = segment.p_offset;
    const std::size_t end = offset + std::min<std::size_t>(segment.p_filesz, 65536);
    while (offset + sizeof(Elf64_Nhdr) <= end) {
        const auto note = readAt<Elf64_Nhdr>(file, offset);
        if (!note) {
            break;
        }
        const std::size_t name = offset + sizeof(Elf64_Nhdr);
        const std::size_t content = name + padded(note->n_namesz);
        if (note->n_type == NT_GNU_BUILD_ID && textAt(file, name, note->n_namesz) == owner) {
            return hexadecimal(textAt(file, content, note->n_descsz));
        }
        offset = content + padded(note->n_descsz);
    }
    return {};
}

std::string buildIdOf(std::istream& file) {
    const auto header = readAt<Elf64_Ehdr>(file, 0);
    if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
        header->e_ident[EI_CLASS] != ELFCLASS64 || header->e_phentsize != sizeof(Elf64_Phdr)) {
        return {};
    }
    for (std::size_t i = 0; i < header->e_phnum; ++i) {
        const auto segment = readAt<Elf64_Phdr>(file, header->e_phoff + i * sizeof(Elf64_Phdr));
        if (segment && segment->p_type == PT_NOTE) {
            if (std::string id = buildIdIn(file, *segment); !id.empty()) {
                return id;
            }
        }
    }
    return {};
}

}  // namespace

std::string buildOf(const std::filesystem::path& program) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(program, error)) {
        return "there is none";
    }
    std::ifstream file(program, std::ios::binary);
    const std::string id = file ? buildIdOf(file) : std::string();
    return id.empty() ? "which build it is cannot be told" : "build " + id;
}

}  // namespace kolvan::check
