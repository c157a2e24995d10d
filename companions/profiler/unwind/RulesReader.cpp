#include "companions/profiler/unwind/RulesReader.h"

#include "companions/profiler/objects/Sections.h"
#include "companions/profiler/unwind/FrameProgram.h"

#include <gelf.h>

#include <span>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr std::uint64_t kLargestUncompressed = 256U << 20;

std::span<const std::byte> bytesOf(const Elf_Data* data) {
    return data == nullptr || data->d_buf == nullptr
               ? std::span<const std::byte>()
               : std::span(static_cast<const std::byte*>(data->d_buf), data->d_size);
}

/// Takes a section's compression away, in memory. @return false where that cannot be done
bool uncompress(Elf_Scn* section, const GElf_Shdr& header) {
    if ((header.sh_flags & SHF_COMPRESSED) == 0) {
        return true;
    }
    GElf_Chdr compression;
    return ::gelf_getchdr(section, &compression) != nullptr &&
           compression.ch_size <= kLargestUncompressed && ::elf_compress(section, 0, 0) >= 0;
}

std::optional<FrameTable> openSection(const ElfObject& object, const char* name,
                                      FrameTable::Kind kind) {
    Elf_Scn* const section = findSection(object.elf(), name);
    GElf_Shdr header;
    if (section == nullptr || ::gelf_getshdr(section, &header) == nullptr ||
        header.sh_type == SHT_NOBITS || !uncompress(section, header)) {
        return std::nullopt;
    }
    return FrameTable(kind, bytesOf(::elf_rawdata(section, nullptr)), header.sh_addr);
}

/// The same of a file without sections, by what the loader gives to who throws exceptions.
std::optional<FrameTable> openSegment(const ElfObject& object) {
    std::size_t count = 0;
    GElf_Phdr header{};
    if (::elf_getphdrnum(object.elf(), &count) != 0) {
        return std::nullopt;
    }
    for (std::size_t index = 0; index < count && header.p_type != PT_GNU_EH_FRAME; ++index) {
        if (::gelf_getphdr(object.elf(), static_cast<int>(index), &header) == nullptr) {
            return std::nullopt;
        }
    }
    if (header.p_type != PT_GNU_EH_FRAME) {
        return std::nullopt;
    }
    const auto readBytes = [&object](std::uint64_t offset, std::uint64_t size) {
        return bytesOf(::elf_getdata_rawchunk(object.elf(), static_cast<std::int64_t>(offset), size,
                                              ELF_T_BYTE));
    };
    // A version, three encodings, and a pointer to the frames.
    ByteReader reader(readBytes(header.p_offset, header.p_filesz));
    const auto version = reader.read<std::uint8_t>();
    const auto encoding = reader.read<std::uint8_t>();
    (void)reader.take(2);  // the others are of a table for quick search
    const auto frames = FrameTable::readPointer(reader, encoding, header.p_vaddr);
    if (version != 1 || !frames || reader.isBroken()) {
        return std::nullopt;
    }
    for (const ElfObject::Segment& segment : object.segments()) {
        const std::uint64_t distance = *frames - segment.address;
        if (distance < segment.fileSize) {
            return FrameTable(FrameTable::Kind::Exceptions,
                              readBytes(segment.fileOffset + distance, segment.fileSize - distance),
                              *frames);
        }
    }
    return std::nullopt;
}

std::optional<FrameTable> openDebugFrames(const ElfObject& object) {
    constexpr const char* kName = ".debug_frame";
    auto table = openSection(object, kName, FrameTable::Kind::Debugging);
    if (!table) {
        const ElfObject* const debugFile = object.debugFile();
        if (debugFile != nullptr && debugFile->isNative()) {
            table = openSection(*debugFile, kName, FrameTable::Kind::Debugging);
        }
    }
    return table;
}

FrameRules readRules(const std::optional<FrameTable>& table, std::uint64_t address) {
    const auto function = table ? table->find(address) : std::nullopt;
    return function ? executeFrameProgram(*function, address) : FrameRules();
}

}  // namespace

RulesReader::RulesReader(std::shared_ptr<const ElfObject> file) : object(std::move(file)) {
    if (object->isNative()) {
        exceptionFrames = openSection(*object, ".eh_frame", FrameTable::Kind::Exceptions);
        if (!exceptionFrames) {
            exceptionFrames = openSegment(*object);
        }
    }
}

FrameRules RulesReader::read(std::uint64_t address) {
    FrameRules rules = readRules(exceptionFrames, address);
    if (!rules.known && object->isNative()) {
        if (!std::exchange(debugFramesSought, true)) {
            debugFrames = openDebugFrames(*object);
        }
        rules = readRules(debugFrames, address);
    }
    return rules;
}

bool RulesReader::hasFrames() const noexcept {
    return (exceptionFrames && !exceptionFrames->empty()) || (debugFrames && !debugFrames->empty());
}

}  // namespace kolvan::profiler
