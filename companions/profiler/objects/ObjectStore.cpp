#include "companions/profiler/objects/ObjectStore.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <span>
#include <string_view>

#include <elf.h>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/stat.h>

namespace kolvan::profiler {

namespace {

constexpr std::string_view kDeleted = " (deleted)";
constexpr std::size_t kMostObjects =
    4'096;  // each is a mapping, of which a process may have 65,530

/// The kernel's library in this process. It is the same in every process of the machine.
std::span<const std::byte> vdsoImage() {
    const unsigned long address = ::getauxval(AT_SYSINFO_EHDR);
    if (address == 0) {
        return {};
    }
    const auto* const begin =
        reinterpret_cast<const std::byte*>(address);  // NOLINT(performance-no-int-to-ptr)
    Elf64_Ehdr header;
    std::memcpy(&header, begin, sizeof header);
    std::size_t size = header.e_shoff + std::size_t{header.e_shnum} * header.e_shentsize;
    for (std::size_t index = 0; index < header.e_phnum; ++index) {
        Elf64_Phdr segment;
        std::memcpy(&segment, begin + header.e_phoff + index * sizeof segment, sizeof segment);
        size = std::max<std::size_t>(size, segment.p_offset + segment.p_filesz);
    }
    return {begin, size};
}

std::string hexadecimal(std::uint64_t number) {
    std::array<char, 16> digits{};
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16);
    return {digits.data(), result.ptr};
}

/// Where the process's files are seen from here.
std::string rootOf(pid_t process) {
    return "/proc/" + std::to_string(process) + "/root";
}

/// @return nothing when there is no file of that inode there
FileDescriptor openIfSame(const std::string& place, const MappedFile& wanted) {
    // A FIFO of that name would block whoever opens it.
    FileDescriptor file(::open(place.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    // The device is no witness: file systems of layers or with subvolumes show one number in
    // stat(2) and another in the list of mappings.
    if (file && (::fstat(file.get(), &status) != 0 || status.st_ino != wanted.inode)) {
        return {};
    }
    return file;
}

}  // namespace

ObjectStore::ObjectStore() : vdso(ElfObject::fromMemory(vdsoImage(), "[vdso]")) {}

std::shared_ptr<const ElfObject> ObjectStore::find(const MappedFile& file) {
    if (file.path == "[vdso]") {
        return vdso;
    }
    if (file.inode == 0 || !file.path.starts_with('/') || file.path.starts_with("//")) {
        return nullptr;
    }
    const Identity identity(file.device, file.inode);
    const auto known = objects.find(identity);
    if (known != objects.end()) {
        return known->second;
    }
    auto object = openMapped(file);
    // What is no object is asked for again: nothing keeps its inode number from being given to a
    // file that is one.
    if (object) {
        if (objects.size() >= kMostObjects) {
            std::erase_if(objects, [](const auto& entry) { return entry.second.use_count() == 1; });
        }
        objects.emplace(identity, object);
    }
    return object;
}

std::shared_ptr<const ElfObject> ObjectStore::openMapped(const MappedFile& file) {
    std::string path = file.path;
    if (path.ends_with(kDeleted)) {
        path.resize(path.size() - kDeleted.size());
    }
    const std::string process = "/proc/" + std::to_string(file.process);
    const std::string root = rootOf(file.process);
    // The last one always leads to the file itself, and is open to a privileged user only.
    for (const std::string& place :
         {root + path, path, process + "/exe",
          process + "/map_files/" + hexadecimal(file.begin) + "-" + hexadecimal(file.end)}) {
        if (FileDescriptor descriptor = openIfSame(place, file)) {
            return ElfObject::open(std::move(descriptor), path, root);
        }
    }
    return nullptr;
}

}  // namespace kolvan::profiler
