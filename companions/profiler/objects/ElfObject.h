#pragma once

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/objects/TruncationGuard.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct Elf;

namespace kolvan::profiler {

/// One ELF file that somebody has mapped, or an image of one in memory.
///
/// The file may be anything: whoever is profiled has chosen it. Whatever is broken in it is as if
/// it were not there. One thread at a time.
class ElfObject {
public:
    /// A part of the file that is loaded into memory (PT_LOAD).
    struct Segment {
        std::uint64_t fileOffset = 0;
        std::uint64_t fileSize = 0;  ///< bytes
        std::uint64_t address = 0;   ///< where it is linked to be
        bool executable = false;
    };

    /// Takes over the descriptor of a file. The object keeps the file alive, and so its inode
    /// number from being given to another one, but needs no descriptor for it.
    /// @param path as the process that has mapped it sees it
    /// @param root where that process's root directory is seen, without a slash at its end: "" or
    ///     "/proc/PID/root"
    /// @return nothing when it is no ELF file
    static std::shared_ptr<const ElfObject> open(FileDescriptor file, const std::string& path,
                                                 const std::string& root);

    /// @param image outlives the object
    /// @return nothing when it is no ELF file
    static std::shared_ptr<const ElfObject> fromMemory(std::span<const std::byte> image,
                                                       const std::string& path);

    ElfObject(const ElfObject&) = delete;
    ElfObject& operator=(const ElfObject&) = delete;
    ~ElfObject();

    const std::string& path() const noexcept { return ownPath; }

    /// Where the root directory of the process that has mapped it is seen; empty for ours.
    const std::string& root() const noexcept { return rootDirectory; }

    /// Lower-case hexadecimal digits; empty when it has none.
    const std::string& buildId() const noexcept { return ownBuildId; }

    /// Whether it holds code for x86-64. The stacks of other code cannot be unwound here.
    bool isNative() const noexcept { return native; }

    std::span<const Segment> segments() const noexcept { return loaded; }

    /// The address that the file itself gives to a place in it.
    /// @return nothing for a place that is not loaded
    std::optional<std::uint64_t> addressOf(std::uint64_t fileOffset) const noexcept;

    /// Where a program begins, as the file counts; 0 for most libraries.
    std::uint64_t entry() const noexcept { return entryAddress; }

    /// What the file holds for `size` bytes from `address` on, as the file counts.
    /// @return empty where the file does not load all of them
    std::span<const std::byte> contents(std::uint64_t address, std::size_t size) const noexcept;

    /// For libelf and libdw; the object keeps owning it.
    Elf* elf() const noexcept { return handle.get(); }

    /// The file that holds what was stripped from this one, where one is installed: below the
    /// directory of build-ids, or under the name that this file gives (.gnu_debuglink). Looked for
    /// at the first call.
    /// @return null when there is none; it lives as long as this object
    const ElfObject* debugFile() const;

    /// What libelf hands over, released with it.
    struct ElfEnd {
        void operator()(Elf* elf) const noexcept;
    };
    using ElfHandle = std::unique_ptr<Elf, ElfEnd>;

private:
    /// @param mapping what somebody may cut short meanwhile: all of a file, nothing of an image
    ElfObject(ElfHandle elf, std::span<const char> mapping, std::string path, std::string root);

    const std::string ownPath;
    const std::string rootDirectory;
    const ElfHandle handle;
    const TruncationGuard guard;
    const std::span<const std::byte> bytes;  // of the whole file
    std::uint64_t entryAddress = 0;
    std::string ownBuildId;
    bool native = false;
    std::vector<Segment> loaded;

    mutable bool debugFileSought = false;
    mutable std::shared_ptr<const ElfObject> debugObject;
};

/// Two lower-case digits for each byte.
std::string hexadecimalText(std::span<const std::byte> bytes);

}  // namespace kolvan::profiler
