#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::profiler {

/// The kernel's functions by address, as far as the system shows them.
class KernelSymbols {
public:
    /// @param path of the kernel's list
    explicit KernelSymbols(const std::string& path = "/proc/kallsyms");

    /// Whether the system shows where functions are. It shows zeros to whoever may not see it.
    bool available() const noexcept { return !symbols.empty(); }

    /// @return the name of the function; nothing where there is none
    std::optional<std::string_view> find(std::uint64_t address) const noexcept;

private:
    struct Symbol {
        std::uint64_t address = 0;
        std::uint32_t name = 0;  // position in `names`
    };

    std::string names;  // each ends with a NUL
    std::vector<Symbol> symbols;
};

}  // namespace kolvan::profiler
