#include "agent/Base64.h"

#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace cagnt1 {

namespace {

using Pair = std::array<char, 2>;
using PairTable = std::array<Pair, 4096>;

// The library's iterators define the alphabet; walking them for every byte of a collector's
// output would be several times slower than looking up twelve bits at a time.
PairTable makePairTable() {
    using Alphabet = boost::archive::iterators::base64_from_binary<
        boost::archive::iterators::transform_width<const char*, 6, 8>>;
    PairTable table{};
    for (std::size_t bits = 0; bits < table.size(); ++bits) {
        const std::array<char, 2> bytes{static_cast<char>(bits >> 4U),
                                        static_cast<char>((bits & 0x0FU) << 4U)};
        std::copy_n(Alphabet(bytes.data()), table[bits].size(), table[bits].begin());
    }
    return table;
}

}  // namespace

std::string encodeBase64(std::string_view bytes) {
    static const PairTable table = makePairTable();

    std::string text((bytes.size() + 2) / 3 * 4, '=');
    char* out = text.data();
    const auto put = [&out](const Pair& pair) { out = std::copy(pair.begin(), pair.end(), out); };
    const auto byteAt = [bytes](std::size_t position) {
        return static_cast<std::uint8_t>(bytes[position]);
    };

    std::size_t position = 0;
    for (; position + 3 <= bytes.size(); position += 3) {
        const std::uint32_t triple = static_cast<std::uint32_t>(byteAt(position)) << 16U |
                                     static_cast<std::uint32_t>(byteAt(position + 1)) << 8U |
                                     static_cast<std::uint32_t>(byteAt(position + 2));
        put(table[triple >> 12U]);
        put(table[triple & 0xFFFU]);
    }
    if (bytes.size() - position == 1) {
        put(table[static_cast<std::size_t>(byteAt(position)) << 4U]);
    } else if (bytes.size() - position == 2) {
        const std::uint32_t two = static_cast<std::uint32_t>(byteAt(position)) << 8U |
                                  static_cast<std::uint32_t>(byteAt(position + 1));
        put(table[two >> 4U]);
        *out = table[(two & 0x0FU) << 8U][0];
    }
    return text;
}

}  // namespace cagnt1
