#include "companions/profiler/objects/ElfObject.h"

#include "companions/profiler/objects/DebugFile.h"

#include <elfutils/libdwelf.h>
#include <gelf.h>

#include <string_view>
#include <utility>

#include <sys/stat.h>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostSegments = 1'024;  // a usual file has four

bool isRegularFile(const FileDescriptor& file) {
    struct stat status {};
    return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string readBuildId(Elf* elf) {
    constexpr ssize_t kLongest = 64;  // bytes; those in use have 8 to 32
    const void* bits = nullptr;
    const ssize_t length = ::dwelf_elf_gnu_build_id(elf, &bits);
    if (length <= 0 || length > kLongest) {
        return "";
    }
    return hexadecimalText({static_cast<const std::byte*>(bits), static_cast<std::size_t>(length)});
}

std::vector<ElfObject::Segment> readSegments(Elf* elf) {
    std::vector<ElfObject::Segment> segments;
    std::size_t count = 0;
    if (::elf_getphdrnum(elf, &count) != 0) {
        return segments;
    }
    for (std::size_t index = 0; index < count && segments.size() < kMostSegments; ++index) {
        GElf_Phdr header;
        if (::gelf_getphdr(elf, static_cast<int>(index), &header) != nullptr &&
            header.p_type == PT_LOAD) {
            segments.push_back({.fileOffset = header.p_offset,
                                .fileSize = header.p_filesz,
                                .address = header.p_vaddr,
                                .executable = (header.p_flags & PF_X) != 0});
        }
    }
    return segments;
}

std::span<const std::byte> wholeFile(Elf* elf) {
    std::size_t size = 0;
    const char* const begin = ::elf_rawfile(elf, &size);
    return begin == nullptr ? std::span<const std::byte>() : std::as_bytes(std::span(begin, size));
}

}  // namespace

void ElfObject::ElfEnd::operator()(Elf* elf) const noexcept {
    (void)::elf_end(elf);  // the count of users that are left: none
}

std::shared_ptr<const ElfObject> ElfObject::open(FileDescriptor file, const std::string& path,
                                                 const std::string& root) {
    if (::elf_version(EV_CURRENT) == EV_NONE || !isRegularFile(file)) {
        return nullptr;
    }
    ElfHandle elf(::elf_begin(file.get(), ELF_C_READ_MMAP, nullptr));
    // From here on libelf reads its mapping of the file, or a copy where the file system has none.
    if (!elf || ::elf_kind(elf.get()) != ELF_K_ELF || ::elf_cntl(elf.get(), ELF_C_FDREAD) != 0) {
        return nullptr;
    }
    const auto mapping = wholeFile(elf.get());
    const std::span guarded(reinterpret_cast<const char*>(mapping.data()), mapping.size());
    return std::shared_ptr<const ElfObject>(new ElfObject(std::move(elf), guarded, path, root));
}

std::shared_ptr<const ElfObject> ElfObject::fromMemory(std::span<const std::byte> image,
                                                       const std::string& path) {
    if (::elf_version(EV_CURRENT) == EV_NONE) {
        return nullptr;
    }
    // libelf asks for writable memory, and writes to it only where it is told to.
    const void* const bytes = image.data();
    ElfHandle elf(::elf_memory(static_cast<char*>(const_cast<void*>(bytes)), image.size()));
    if (!elf || ::elf_kind(elf.get()) != ELF_K_ELF) {
        return nullptr;
    }
    return std::shared_ptr<const ElfObject>(new ElfObject(std::move(elf), {}, path, ""));
}

ElfObject::ElfObject(ElfHandle elf, std::span<const char> mapping, std::string path,
                     std::string root)
    : ownPath(std::move(path)),
      rootDirectory(std::move(root)),
      handle(std::move(elf)),
      guard(mapping),
      bytes(wholeFile(handle.get())) {
    GElf_Ehdr header{};
    native = ::gelf_getehdr(handle.get(), &header) != nullptr &&
             header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
             header.e_machine == EM_X86_64;
    entryAddress = header.e_entry;
    ownBuildId = readBuildId(handle.get());
    loaded = readSegments(handle.get());
}

ElfObject::~ElfObject() = default;

std::optional<std::uint64_t> ElfObject::addressOf(std::uint64_t fileOffset) const noexcept {
    // Neighbouring segments may share bytes of the file; those that are asked for are code.
    for (const bool executable : {true, false}) {
        for (const Segment& segment : loaded) {
            if (segment.executable == executable && fileOffset >= segment.fileOffset &&
                fileOffset - segment.fileOffset < segment.fileSize) {
                return segment.address + (fileOffset - segment.fileOffset);
            }
        }
    }
    return std::nullopt;
}

std::span<const std::byte> ElfObject::contents(std::uint64_t address,
                                               std::size_t size) const noexcept {
    for (const Segment& segment : loaded) {
        const std::uint64_t distance = address - segment.address;
        const std::uint64_t place = segment.fileOffset + distance;
        if (address >= segment.address && distance < segment.fileSize &&
            size <= segment.fileSize - distance && place >= distance && place < bytes.size() &&
            size <= bytes.size() - place) {
            return bytes.subspan(place, size);
        }
    }
    return {};
}

const ElfObject* ElfObject::debugFile() const {
    if (!std::exchange(debugFileSought, true)) {
        debugObject = findDebugFile(*this, rootDirectory);
    }
    return debugObject.get();
}

std::string hexadecimalText(std::span<const std::byte> bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte) >> 4];
        text += kDigits[std::to_integer<unsigned>(byte) & 0x0F];
    }
    return text;
}

}  // namespace kolvan::profiler
