#include "companions/profiler/symbols/KernelSymbols.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostNames = 64U << 20;  // bytes; a usual kernel has 5 MB

/// Letters of code: of the kernel itself, of modules, and weak.
constexpr std::string_view kCode = "tTwW";

}  // namespace

KernelSymbols::KernelSymbols(const std::string& path) {
    // Lines: address, a letter, the name; for modules, a tab and the module's name in brackets.
    std::ifstream file(path);
    for (std::string line; std::getline(file, line) && names.size() < kMostNames;) {
        std::uint64_t address = 0;
        const char* const end = line.data() + line.size();
        const auto [behind, error] = std::from_chars(line.data(), end, address, 16);
        const auto position = static_cast<std::size_t>(behind - line.data());
        if (error != std::errc() || address == 0 || line.size() < position + 4 ||
            kCode.find(line[position + 1]) == std::string_view::npos) {
            continue;
        }
        const std::string_view name = std::string_view(line).substr(position + 3);
        symbols.push_back({address, static_cast<std::uint32_t>(names.size())});
        names += name.substr(0, name.find('\t'));
        names += '\0';
    }
    std::stable_sort(symbols.begin(), symbols.end(), [](const Symbol& left, const Symbol& right) {
        return left.address < right.address;
    });
    symbols.shrink_to_fit();
    names.shrink_to_fit();
}

std::optional<std::string_view> KernelSymbols::find(std::uint64_t address) const noexcept {
    const auto behind =
        std::partition_point(symbols.begin(), symbols.end(),
                             [address](const Symbol& symbol) { return symbol.address <= address; });
    if (behind == symbols.begin()) {
        return std::nullopt;
    }
    return std::string_view(names.c_str() + (behind - 1)->name);
}

}  // namespace kolvan::profiler
