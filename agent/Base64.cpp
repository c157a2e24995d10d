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

// Appends the text of whole groups of three bytes, for which `text` has room.
void appendGroups(std::string& text, std::string_view bytes) {
    static const PairTable table = makePairTable();
    constexpr std::size_t kBlockGroups = 1024;

    std::array<char, kBlockGroups * 4> block;  // not initialised: only what was written is copied
    while (!bytes.empty()) {
        char* out = block.data();
        const auto put = [&out](const Pair& pair) {
            out = std::copy(pair.begin(), pair.end(), out);
        };
        const std::string_view part = bytes.substr(0, kBlockGroups * 3);
        for (std::size_t i = 0; i < part.size(); i += 3) {
            const auto byteAt = [part, i](std::size_t position) {
                return static_cast<std::uint32_t>(static_cast<std::uint8_t>(part[i + position]));
            };
            const std::uint32_t group = byteAt(0) << 16U | byteAt(1) << 8U | byteAt(2);
            put(table[group >> 12U]);
            put(table[group & 0xFFFU]);
        }
        text.append(block.data(), out);
        bytes.remove_prefix(part.size());
    }
}

}  // namespace

void Base64Encoder::append(std::string& text, std::string_view bytes) {
    text.reserve(text.size() + (rest.size() + bytes.size()) / 3 * 4);
    if (!rest.empty()) {
        const std::string_view missing = bytes.substr(0, 3 - rest.size());
        rest += missing;
        bytes.remove_prefix(missing.size());
        if (rest.size() < 3) {
            return;
        }
        appendGroups(text, rest);
    }
    const std::size_t whole = bytes.size() / 3 * 3;
    appendGroups(text, bytes.substr(0, whole));
    rest = bytes.substr(whole);
}

void Base64Encoder::finish(std::string& text) {
    if (rest.empty()) {
        return;
    }
    text.reserve(text.size() + 4);
    const std::size_t padding = 3 - rest.size();
    appendGroups(text, rest.append(padding, '\0'));
    std::fill(text.end() - static_cast<std::ptrdiff_t>(padding), text.end(), '=');
    rest.clear();
}

}  // namespace cagnt1
