#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::profiles {

/// Gives each sequence of bytes a number, from 0 in the order of their first appearance.
class ByteTable {
public:
    ByteTable();

    /// @return the number of `bytes`, which are kept when they are new
    std::uint32_t add(std::string_view bytes);

    /// Valid until the next `add()`.
    std::string_view operator[](std::uint32_t number) const;

    std::size_t size() const noexcept { return ends.size(); }

private:
    struct Slot {
        std::uint32_t hash = 0;         // the part that tells most different entries apart
        std::uint32_t numberPlus1 = 0;  // 0: free
    };

    void enlarge();

    const std::array<unsigned char, 16> key;  // crypto_shorthash_KEYBYTES; random
    std::string bytesOfAll;
    std::vector<std::size_t> ends;  // in `bytesOfAll`
    std::vector<Slot> slots;
};

}  // namespace kolvan::server::profiles
