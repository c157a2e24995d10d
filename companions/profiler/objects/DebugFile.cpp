#include "companions/profiler/objects/DebugFile.h"

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/objects/ElfObject.h"

#include <elfutils/libdwelf.h>
#include <libelf.h>
#include <zlib.h>

#include <filesystem>
#include <utility>
#include <vector>

#include <fcntl.h>

namespace kolvan::profiler {

namespace {

constexpr const char* kDebugDirectory = "/usr/lib/debug";

std::shared_ptr<const ElfObject> openFile(const std::string& path, const std::string& root) {
    // A FIFO of that name would block whoever opens it.
    const std::string place = root + path;
    FileDescriptor file(::open(place.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return file ? ElfObject::open(std::move(file), path, root) : nullptr;
}

bool hasChecksum(const ElfObject& object, GElf_Word expected) {
    std::size_t size = 0;
    const char* const bytes = ::elf_rawfile(object.elf(), &size);
    const void* const untyped = bytes;
    return bytes != nullptr && ::crc32_z(0, static_cast<const Bytef*>(untyped), size) == expected;
}

std::vector<std::string> roots(const std::string& root) {
    return root.empty() ? std::vector<std::string>{""} : std::vector<std::string>{root, ""};
}

std::shared_ptr<const ElfObject> findByBuildId(const ElfObject& object, const std::string& root) {
    const std::string& id = object.buildId();
    if (id.size() < 4) {
        return nullptr;
    }
    const std::string path = std::string(kDebugDirectory) + "/.build-id/" + id.substr(0, 2) + "/" +
                             id.substr(2) + ".debug";
    for (const std::string& place : roots(root)) {
        auto file = openFile(path, place);
        if (file && file->buildId() == id) {
            return file;
        }
    }
    return nullptr;
}

std::shared_ptr<const ElfObject> findByLink(const ElfObject& object, const std::string& root) {
    GElf_Word checksum = 0;
    const char* const link = ::dwelf_elf_gnu_debuglink(object.elf(), &checksum);
    const std::string name = link == nullptr ? "" : link;
    if (name.empty() || name.find('/') != std::string::npos) {
        return nullptr;
    }
    const std::filesystem::path directory = std::filesystem::path(object.path()).parent_path();
    const std::filesystem::path belowDebug = kDebugDirectory + directory.string();
    for (const std::string& place : roots(root)) {
        for (const std::filesystem::path& path :
             {directory / name, directory / ".debug" / name, belowDebug / name}) {
            auto file = openFile(path, place);
            if (file && hasChecksum(*file, checksum)) {
                return file;
            }
        }
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<const ElfObject> findDebugFile(const ElfObject& object, const std::string& root) {
    if (!object.path().starts_with('/')) {
        return nullptr;
    }
    auto file = findByBuildId(object, root);
    return file ? file : findByLink(object, root);
}

std::shared_ptr<const ElfObject> findSupplement(const ElfObject& debugFile, const std::string& name,
                                                std::span<const std::byte> buildId) {
    const std::filesystem::path path = std::filesystem::path(debugFile.path()).parent_path() / name;
    for (const std::string& place : roots(debugFile.root())) {
        auto file = openFile(path, place);
        if (file && file->buildId() == hexadecimalText(buildId)) {
            return file;
        }
    }
    return nullptr;
}

}  // namespace kolvan::profiler
