#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kolvan::server::profiles {

/// Positions by the ids that a file gives to its entries, which may be any numbers. Most files
/// count them from 1, and are found without a search then.
class IdTable {
public:
    /// Gives `id` the next position.
    void add(std::uint64_t id);

    /// Has to be called between the last `add()` and the first `find()`.
    void sort();

    /// @return the first position with this id, if there is one
    std::optional<std::uint32_t> find(std::uint64_t id) const;

private:
    // By id. A hash table could be slowed down without end by ids that are chosen for it.
    std::vector<std::pair<std::uint64_t, std::uint32_t>> entries;
    bool counted = true;  // from 1, without a gap
};

}  // namespace kolvan::server::profiles
