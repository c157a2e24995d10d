#include "companions/server/profiles/IdTable.h"

#include <algorithm>

namespace kolvan::server::profiles {

void IdTable::add(std::uint64_t id) {
    counted = counted && id == entries.size() + 1;
    entries.emplace_back(id, static_cast<std::uint32_t>(entries.size()));
}

void IdTable::sort() {
    std::sort(entries.begin(), entries.end());
}

std::optional<std::uint32_t> IdTable::find(std::uint64_t id) const {
    if (counted) {
        return id - 1 < entries.size() ? std::optional(static_cast<std::uint32_t>(id - 1))
                                       : std::nullopt;
    }
    const auto entry =
        std::lower_bound(entries.begin(), entries.end(), std::pair(id, std::uint32_t{0}));
    return entry != entries.end() && entry->first == id ? std::optional(entry->second)
                                                        : std::nullopt;
}

}  // namespace kolvan::server::profiles
