#pragma once

#include "companions/profiler/objects/ElfObject.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct Dwarf;

namespace kolvan::profiler {

/// Places in the source by address: of one object, by its debug information or that of its separate
/// debug file. An object that has none has no places.
///
/// Everything is read when it is first needed. What it takes of memory grows with the number of
/// compiled sources that are asked about.
class SourceLines {
public:
    explicit SourceLines(std::shared_ptr<const ElfObject> file);
    ~SourceLines();

    SourceLines(const SourceLines&) = delete;
    SourceLines& operator=(const SourceLines&) = delete;

    struct Call {
        std::string systemName;  ///< mangled, where the compiler has written it down; may be empty
        std::string file;        ///< empty when it is not known
        std::uint32_t line = 0;  ///< 0 when it is not known
    };

    /// @param address as the object itself counts
    /// @return the functions that have been inlined there, innermost first, and the one that they
    /// were
    ///     inlined into; each with the line that is executed, or from which the one before it is
    ///     called
    std::vector<Call> find(std::uint64_t address);

private:
    struct DwarfEnd {
        void operator()(Dwarf* dwarf) const noexcept;
    };
    using DwarfHandle = std::unique_ptr<Dwarf, DwarfEnd>;

    /// Addresses of something that begins at `offset` in the debug information.
    struct Range {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::uint64_t offset = 0;
    };
    using Ranges = std::vector<Range>;

    static void arrange(Ranges& ranges);
    static const Range* findRange(const Ranges& ranges, std::uint64_t address);

    void readUnits();
    /// The functions of the compiled source that begins at `unit`.
    const Ranges& functionsOf(std::uint64_t unit);

    // In the order in which they refer to each other.
    const std::shared_ptr<const ElfObject> object;
    std::shared_ptr<const ElfObject> supplementFile;
    DwarfHandle supplement;  // what several debug files have in common, where they were made so
    DwarfHandle information;
    Ranges units;
    std::map<std::uint64_t, Ranges> functions;  // by unit
};

}  // namespace kolvan::profiler
