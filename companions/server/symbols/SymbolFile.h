#pragma once

#include "basekit2/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::server::symbols {

/// A file is no ELF file, or one that is beyond what we take. Its text is a sentence for the user.
struct UnreadableSymbols : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What we take of one file. Whoever uploads it chooses its bytes, so that memory and time are
/// bounded by these numbers and not by what the file says of itself: about 130 MiB at worst, and
/// some seconds.
struct SymbolLimits {
    std::size_t sections = 100'000;      ///< the tables of large programs have dozens
    std::size_t noteBytes = 65'536;      ///< of one section with notes; longer ones are passed over
    std::size_t symbols = 4'000'000;     ///< a large browser has a million
    std::size_t nameBytes = 16'384;      ///< of one name; longer ones are as if they were not there
    std::size_t named = 262'144;         ///< functions that are named in one call
    std::size_t allNameBytes = 1 << 26;  ///< of all these names together
};

/// The functions of an ELF file, 32 or 64 bits of little-endian bytes, as its symbol table has
/// them; or its table for the loader where it has no other.
///
/// Read here and not by libelf: that one makes room for as many sections and as long tables as a
/// file says it has, before anybody can look at the numbers.
///
/// Threads: const members from any thread.
class SymbolFile {
public:
    /// Reads the table, which takes about a tenth of a second for a million symbols.
    /// @throws UnreadableSymbols; std::system_error when the disk cannot be read
    explicit SymbolFile(basekit2::UniqueFd openFile, const SymbolLimits& symbolLimits = {});

    /// Lower-case hexadecimal digits; empty when it has none.
    const std::string& buildId() const noexcept { return id; }

    /// How many functions it names.
    std::size_t size() const noexcept { return functions.size(); }

    /// Names the functions at addresses, as they stand in the source.
    /// @param addresses as the file itself counts them, ascending
    /// @return a name for each; empty where there is none, and beyond the limits
    /// @throws std::system_error when the disk cannot be read
    std::vector<std::string> namesAt(std::span<const std::uint64_t> addresses) const;

private:
    struct Function {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::uint32_t name = 0;  // its place among the names
        std::uint8_t rank = 0;   // lower is preferred
    };

    struct Section {
        std::uint32_t type = 0;
        std::uint32_t link = 0;
        std::uint64_t offset = 0;
        std::uint64_t size = 0;
        std::uint64_t alignment = 0;
    };

    template <typename Types>
    void readAs();
    template <typename Types>
    std::vector<Section> readSections() const;
    template <typename Types>
    void readFunctions(const Section& table);
    void readBuildId(const Section& notes);
    void arrange();
    const Function* find(std::uint64_t address) const noexcept;
    std::string nameOf(const Function& function) const;
    void read(std::uint64_t offset, std::span<char> buffer) const;
    bool holds(std::uint64_t offset, std::uint64_t length) const noexcept;

    const basekit2::UniqueFd file;
    const SymbolLimits limits;
    std::uint64_t fileSize = 0;
    std::string id;
    Section names;
    std::vector<Function> functions;  // ascending by address, one for each
};

}  // namespace kolvan::server::symbols
