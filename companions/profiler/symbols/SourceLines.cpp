#include "companions/profiler/symbols/SourceLines.h"

#include "companions/profiler/objects/DebugFile.h"
#include "companions/profiler/objects/Sections.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostRanges = 4'000'000;    // 24 bytes each
constexpr std::size_t kMostEntries = 20'000'000;  // of one unit, looked at once
constexpr int kDeepest = 256;                     // entries within entries
// How far to look back for a range that encloses others.
constexpr std::size_t kMostEnclosed = 16;

/// The file that has the debug information of `object`; null when there is none.
const ElfObject* holderOf(const ElfObject& object) {
    for (const ElfObject* file : {&object, object.debugFile()}) {
        if (file != nullptr && file->isNative() &&
            (findSection(file->elf(), ".debug_info") != nullptr ||
             findSection(file->elf(), ".zdebug_info") != nullptr)) {
            return file;
        }
        if (file == nullptr) {
            break;
        }
    }
    return nullptr;
}

std::string textOf(const char* text) {
    return text == nullptr ? "" : text;
}

std::string nameOf(Dwarf_Die* entry) {
    for (const unsigned name : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name, DW_AT_name}) {
        Dwarf_Attribute attribute;
        if (::dwarf_attr_integrate(entry, name, &attribute) != nullptr) {
            if (const char* const text = ::dwarf_formstring(&attribute)) {
                return text;
            }
        }
    }
    return "";
}

/// A number that stands for something in the source: 0 when it is not there.
std::uint32_t numberOf(Dwarf_Die* entry, unsigned name) {
    Dwarf_Attribute attribute;
    Dwarf_Word number = 0;
    if (::dwarf_attr(entry, name, &attribute) == nullptr ||
        ::dwarf_formudata(&attribute, &number) != 0 || number > UINT32_MAX) {
        return 0;
    }
    return static_cast<std::uint32_t>(number);
}

std::string fileOf(Dwarf_Die* unit, std::uint32_t number) {
    Dwarf_Files* files = nullptr;
    std::size_t count = 0;
    if (::dwarf_getsrcfiles(unit, &files, &count) != 0 || number >= count) {
        return "";
    }
    return textOf(::dwarf_filesrc(files, number, nullptr, nullptr));
}

/// Calls `use` with the addresses of an entry, `use(begin, end)`.
template <typename Use>
void forEachRange(Dwarf_Die* entry, Use use) {
    Dwarf_Addr base = 0;
    Dwarf_Addr begin = 0;
    Dwarf_Addr end = 0;
    std::ptrdiff_t offset = 0;
    for (std::size_t count = 0; count < kMostRanges; ++count) {
        offset = ::dwarf_ranges(entry, offset, &base, &begin, &end);
        if (offset <= 0) {
            return;
        }
        if (begin < end) {
            use(begin, end);
        }
    }
}

/// Calls `use` with the entries directly within `parent`, until it returns false or `budget` is
/// used up: broken information may lead in circles.
template <typename Use>
void forEachChild(Dwarf_Die* parent, std::size_t& budget, Use use) {
    Dwarf_Die child;
    if (::dwarf_child(parent, &child) != 0) {
        return;
    }
    while (budget > 0) {
        --budget;
        if (!use(child) || ::dwarf_siblingof(&child, &child) != 0) {
            return;
        }
    }
}

/// Calls `use` with every function below `parent` that has code.
template <typename Use>
void forEachFunction(Dwarf_Die* parent, std::size_t& budget, int depth, Use& use) {
    if (depth == kDeepest) {
        return;
    }
    forEachChild(parent, budget, [&](Dwarf_Die& child) {
        if (::dwarf_tag(&child) == DW_TAG_subprogram) {
            use(child);
        }
        forEachFunction(&child, budget, depth + 1, use);
        return true;
    });
}

/// What has been inlined at an address of a function, the outermost first.
std::vector<Dwarf_Die> inlinedAt(Dwarf_Die function, std::uint64_t address) {
    std::vector<Dwarf_Die> inlined;
    std::size_t budget = kMostEntries;
    Dwarf_Die place = function;
    bool found = true;
    for (int depth = 0; found && depth < kDeepest; ++depth) {
        found = false;
        Dwarf_Die parent = place;
        forEachChild(&parent, budget, [&](Dwarf_Die& child) {
            const int tag = ::dwarf_tag(&child);
            if ((tag == DW_TAG_inlined_subroutine || tag == DW_TAG_lexical_block) &&
                ::dwarf_haspc(&child, address) > 0) {
                found = true;
                place = child;
                if (tag == DW_TAG_inlined_subroutine) {
                    inlined.push_back(child);
                }
            }
            return !found;
        });
    }
    return inlined;
}

}  // namespace

void SourceLines::DwarfEnd::operator()(Dwarf* dwarf) const noexcept {
    (void)::dwarf_end(dwarf);  // fails for null only
}

SourceLines::SourceLines(std::shared_ptr<const ElfObject> file) : object(std::move(file)) {
    const ElfObject* const holder = holderOf(*object);
    if (holder == nullptr) {
        return;
    }
    information.reset(::dwarf_begin_elf(holder->elf(), DWARF_C_READ, nullptr));
    if (!information) {
        return;
    }
    const char* name = nullptr;
    const void* id = nullptr;
    const ssize_t length = ::dwelf_dwarf_gnu_debugaltlink(information.get(), &name, &id);
    if (length > 0) {
        supplementFile = findSupplement(
            *holder, name,
            std::span(static_cast<const std::byte*>(id), static_cast<std::size_t>(length)));
        supplement.reset(supplementFile
                             ? ::dwarf_begin_elf(supplementFile->elf(), DWARF_C_READ, nullptr)
                             : nullptr);
        ::dwarf_setalt(information.get(), supplement.get());
    }
    readUnits();
}

SourceLines::~SourceLines() = default;

std::vector<SourceLines::Call> SourceLines::find(std::uint64_t address) {
    std::vector<Call> calls;
    Dwarf_Die unit;
    Dwarf_Die function;
    const Range* const unitRange = findRange(units, address);
    if (unitRange == nullptr ||
        ::dwarf_offdie(information.get(), unitRange->offset, &unit) == nullptr) {
        return calls;
    }
    const Range* const range = findRange(functionsOf(unitRange->offset), address);
    if (range == nullptr ||
        ::dwarf_offdie(information.get(), range->offset, &function) == nullptr) {
        return calls;
    }
    Call place;
    if (Dwarf_Line* const line = ::dwarf_getsrc_die(&unit, address)) {
        int number = 0;
        place.line = ::dwarf_lineno(line, &number) == 0 && number > 0
                         ? static_cast<std::uint32_t>(number)
                         : 0;
        place.file = textOf(::dwarf_linesrc(line, nullptr, nullptr));
    }
    std::vector<Dwarf_Die> inlined = inlinedAt(function, address);
    for (auto entry = inlined.rbegin(); entry != inlined.rend(); ++entry) {
        place.systemName = nameOf(&*entry);
        calls.push_back(std::move(place));
        place = {.systemName = "",
                 .file = fileOf(&unit, numberOf(&*entry, DW_AT_call_file)),
                 .line = numberOf(&*entry, DW_AT_call_line)};
    }
    place.systemName = nameOf(&function);
    calls.push_back(std::move(place));
    return calls;
}

void SourceLines::arrange(Ranges& ranges) {
    std::sort(ranges.begin(), ranges.end(), [](const Range& left, const Range& right) {
        return left.begin != right.begin ? left.begin < right.begin : left.end > right.end;
    });
    ranges.shrink_to_fit();
}

const SourceLines::Range* SourceLines::findRange(const Ranges& ranges, std::uint64_t address) {
    auto place = std::partition_point(ranges.begin(), ranges.end(), [address](const Range& range) {
        return range.begin <= address;
    });
    for (std::size_t count = 0; count < kMostEnclosed && place != ranges.begin(); ++count) {
        --place;
        if (address < place->end) {
            return &*place;
        }
    }
    return nullptr;
}

void SourceLines::readUnits() {
    Dwarf_CU* unit = nullptr;
    Dwarf_CU* next = nullptr;
    Dwarf_Die entry;
    std::uint8_t type = 0;
    while (::dwarf_get_units(information.get(), unit, &next, nullptr, &type, &entry, nullptr) ==
           0) {
        unit = next;
        if (type != DW_UT_compile) {
            continue;
        }
        const std::uint64_t offset = ::dwarf_dieoffset(&entry);
        forEachRange(&entry, [&](std::uint64_t begin, std::uint64_t end) {
            if (units.size() < kMostRanges) {
                units.push_back({begin, end, offset});
            }
        });
    }
    arrange(units);
}

const SourceLines::Ranges& SourceLines::functionsOf(std::uint64_t unit) {
    const auto [known, isNew] = functions.try_emplace(unit);
    Ranges& ranges = known->second;
    Dwarf_Die entry;
    if (!isNew || ::dwarf_offdie(information.get(), unit, &entry) == nullptr) {
        return ranges;
    }
    std::size_t budget = kMostEntries;
    const auto add = [&ranges](Dwarf_Die& function) {
        const std::uint64_t offset = ::dwarf_dieoffset(&function);
        forEachRange(&function, [&](std::uint64_t begin, std::uint64_t end) {
            if (ranges.size() < kMostRanges) {
                ranges.push_back({begin, end, offset});
            }
        });
    };
    forEachFunction(&entry, budget, 0, add);
    arrange(ranges);
    return ranges;
}

}  // namespace kolvan::profiler
