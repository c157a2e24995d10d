#pragma once

#include "companions/profiler/objects/ElfObject.h"
#include "companions/profiler/unwind/FrameRules.h"
#include "companions/profiler/unwind/FrameTable.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace kolvan::profiler {

/// Reads call frame information of one object: that of exceptions (.eh_frame) first; where it says
/// nothing, that of debuggers (.debug_frame), of the object or its separate debug file.
///
/// Reading takes about a microsecond for each address; whoever needs one again keeps the rules.
class RulesReader {
public:
    explicit RulesReader(std::shared_ptr<const ElfObject> file);

    /// @param address as the object itself counts
    /// @return rules that are not `known` where there are none, or none that can be followed
    FrameRules read(std::uint64_t address);

    /// Whether the object has call frame information at all, as far as `read` has looked for it.
    bool hasFrames() const noexcept;

private:
    // The object first: it has what the tables read.
    const std::shared_ptr<const ElfObject> object;
    std::optional<FrameTable> exceptionFrames;
    bool debugFramesSought = false;
    std::optional<FrameTable> debugFrames;
};

}  // namespace kolvan::profiler
