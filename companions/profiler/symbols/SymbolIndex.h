#pragma once

#include "companions/profiler/objects/ElfObject.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::profiler {

/// The functions of one object by address: of its symbol table, or that of its separate debug file,
/// of its table for the loader, and the entries through which it calls other objects ("name@plt").
///
/// Where several names stand for one address, a global one is preferred to a weak one, that to a
/// local one, and then the shortest. What is broken in the object is left out.
class SymbolIndex {
public:
    /// Reads the tables, which takes about a quarter of a microsecond a symbol.
    explicit SymbolIndex(std::shared_ptr<const ElfObject> file);

    SymbolIndex(const SymbolIndex&) = delete;
    SymbolIndex& operator=(const SymbolIndex&) = delete;

    struct Match {
        const char* name = nullptr;  ///< as the table has it; lives as long as the index
        std::uint64_t offset = 0;    ///< of the address in the function
    };

    /// @param address as the object itself counts
    /// @return nothing where the object has no name for it
    std::optional<Match> find(std::uint64_t address) const noexcept;

    std::size_t size() const noexcept { return symbols.size(); }

private:
    struct Symbol {
        std::uint64_t address = 0;
        std::uint64_t end = 0;
        const char* name = nullptr;
        std::uint8_t rank = 0;  // lower is preferred
        bool sized = false;     // `end` is the symbol's own, not that of its section
    };

    void addTable(Elf* elf, unsigned type);
    void addPltEntries(Elf* elf);
    void add(std::uint64_t address, std::uint64_t size, std::uint64_t codeEnd, std::uint8_t rank,
             const char* name);
    void arrange();

    // The object first: it has what `symbols` points to.
    const std::shared_ptr<const ElfObject> object;
    std::deque<std::string> ownNames;  // those that stand in no table; never move
    std::vector<Symbol> symbols;       // ascending by address, one for each
};

}  // namespace kolvan::profiler
