#pragma once

#include "companions/profiler/objects/ElfObject.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kolvan::profiler {

/// The code that one process has mapped. A copy is what a forked process begins with.
///
/// The kernel tells when code is mapped, not when it is unmapped: a mapping stays until another one
/// takes its place. One thread at a time.
class AddressSpace {
public:
    struct Mapping {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;         ///< first address behind it
        std::uint64_t fileOffset = 0;  ///< of `begin`
        std::string path;              ///< as the process sees it; "[vdso]", "//anon" and the like
        std::shared_ptr<const ElfObject> object;  ///< null for what is no ELF file

        /// The address that the file itself gives to `address`, which lies in the mapping.
        /// @return nothing without an object, or where the object loads nothing
        std::optional<std::uint64_t> addressInObject(std::uint64_t address) const noexcept;
    };

    /// Adds a mapping, and takes away what it covers of others. An empty one changes nothing. Where
    /// there are tens of thousands, which no living process has at one time, the lowest goes.
    void map(Mapping mapping);

    /// @return null where no code is mapped; valid until the next change
    const Mapping* find(std::uint64_t address) const noexcept;

    /// All of them, ascending.
    std::span<const Mapping> all() const noexcept { return mappings; }

private:
    std::vector<Mapping> mappings;  // ascending, without overlaps
};

}  // namespace kolvan::profiler
