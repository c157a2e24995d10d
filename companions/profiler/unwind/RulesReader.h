#pragma once

#include "companions/profiler/objects/ElfObject.h"
#include "companions/profiler/unwind/FrameRules.h"

#include <cstdint>
#include <memory>

struct Dwarf;
struct Dwarf_CFI_s;

namespace kolvan::profiler {

/// Reads call frame information of one object: that of exceptions (.eh_frame) first; where it says
/// nothing, that of debuggers (.debug_frame), of the object or its separate debug file.
///
/// Reading takes microseconds for each address; whoever needs one again keeps the rules.
class RulesReader {
public:
    explicit RulesReader(std::shared_ptr<const ElfObject> file);

    /// @param address as the object itself counts
    /// @return rules that are not `known` where there are none, or none that can be followed
    FrameRules read(std::uint64_t address);

    /// Whether the object has call frame information at all, as far as `read` has looked for it.
    bool hasFrames() const noexcept { return exceptionFrames || debugFrames != nullptr; }

private:
    struct DwarfEnd {
        void operator()(Dwarf* dwarf) const noexcept;
    };
    using DwarfHandle = std::unique_ptr<Dwarf, DwarfEnd>;
    struct CfiEnd {
        void operator()(Dwarf_CFI_s* cfi) const noexcept;
    };
    using CfiHandle = std::unique_ptr<Dwarf_CFI_s, CfiEnd>;

    Dwarf_CFI_s* openDebugFrames();

    // The object first: it has what the others read.
    const std::shared_ptr<const ElfObject> object;
    const CfiHandle exceptionFrames;  // null when the object has none
    bool debugFramesSought = false;
    DwarfHandle debugInformation;
    Dwarf_CFI_s* debugFrames = nullptr;  // owned by debugInformation
};

}  // namespace kolvan::profiler
