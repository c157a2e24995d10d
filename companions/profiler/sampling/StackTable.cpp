#include "companions/profiler/sampling/StackTable.h"

#include <functional>
#include <string_view>

namespace kolvan::profiler {

namespace {

std::size_t hashOf(const std::vector<std::uint32_t>& locations) {
    const std::string_view bytes(reinterpret_cast<const char*>(locations.data()),
                                 locations.size() * sizeof(std::uint32_t));
    return std::hash<std::string_view>()(bytes);
}

}  // namespace

std::uint32_t StackTable::numberOf(const std::vector<std::uint32_t>& locations, bool complete) {
    const std::size_t hash = hashOf(locations);
    const auto [begin, end] = byHash.equal_range(hash);
    for (auto entry = begin; entry != end; ++entry) {
        const Profile::Stack& stack = stacks[entry->second];
        if (stack.complete == complete && stack.locations == locations) {
            return entry->second;
        }
    }
    const auto number = static_cast<std::uint32_t>(stacks.size());
    stacks.push_back({locations, complete});
    byHash.emplace(hash, number);
    return number;
}

}  // namespace kolvan::profiler
