#pragma once

#include "companions/profiler/unwind/ByteReader.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace kolvan::profiler {

/// The functions that one section of call frame information describes: .eh_frame, made for
/// exceptions, or .debug_frame, made for debuggers.
///
/// Not read by libdw, which believes the section: it makes room for as many registers as an
/// instruction names, up to gigabytes, and follows a table of the file's to any place in it.
class FrameTable {
public:
    enum class Kind { Exceptions, Debugging };

    /// What the descriptions of several functions have in common.
    struct Common {
        std::uint64_t codeFactor = 1;  ///< of distances in the code
        std::int64_t dataFactor = 1;   ///< of distances on the stack
        std::uint64_t returnColumn = 0;
        std::uint8_t pointerEncoding = 0;
        bool sized = false;        ///< functions have data for exceptions of a length in front
        bool signalFrame = false;  ///< they are what a signal's handler returns to
        std::span<const std::byte> program;  ///< executed before that of a function
    };

    /// The description of one function.
    struct Function {
        std::uint64_t begin = 0;
        Common common;
        std::span<const std::byte> program;
    };

    /// @param bytes the section; they outlive the table
    /// @param address where the section is linked to be
    FrameTable(Kind sectionKind, std::span<const std::byte> bytes, std::uint64_t address);

    bool empty() const noexcept { return functions.empty(); }

    /// @return nothing where no function is described
    std::optional<Function> find(std::uint64_t address) const;

    /// A pointer as `encoding` has it.
    /// @param base address of what `reader` reads, for pointers that are relative to their own
    /// place
    /// @return nothing for an encoding that does not occur on this processor
    static std::optional<std::uint64_t> readPointer(ByteReader& reader, std::uint8_t encoding,
                                                    std::uint64_t base);

private:
    /// Where a function's description stands in the section.
    struct Place {
        std::uint64_t begin = 0;
        std::uint32_t length = 0;
        std::uint32_t offset = 0;
    };

    /// One entry of the section: of a function, or of several in common.
    struct Entry {
        bool isCommon = false;
        std::size_t commonOffset = 0;  // of what a function shares
        std::size_t contentOffset = 0;
        std::span<const std::byte> content;
    };

    std::optional<Entry> readEntry(ByteReader& reader) const;
    std::optional<Common> readCommon(std::size_t offset) const;

    Kind kind;
    std::span<const std::byte> section;
    std::uint64_t sectionAddress;
    std::vector<Place> functions;  // ascending
};

}  // namespace kolvan::profiler
