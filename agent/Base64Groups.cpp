#include "agent/Base64Groups.h"

#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include <tmmintrin.h>

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

// A step reads sixteen bytes and encodes the first twelve of them.
constexpr std::size_t kBytesRead = 16;
constexpr std::size_t kBytesOfAStep = 12;
constexpr std::size_t kTextOfAStep = 16;

// Sixteen numbers of six bits, a byte each, from twelve bytes.
__attribute__((target("ssse3"))) __m128i splitIntoSixes(__m128i bytes) noexcept {
    // Each group a, b, c becomes four bytes b, a, c, b: two halves of sixteen bits, of which each
    // has two of the numbers.
    const __m128i groups =
        _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    // Multiplying by a power of two shifts each half by its own amount: the first and third number
    // down, the second and fourth up, into bytes of their own.
    const __m128i down = _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)),
                                         _mm_set1_epi32(0x04000040));
    const __m128i up = _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)),
                                       _mm_set1_epi32(0x01000010));
    return _mm_or_si128(down, up);
}

// The letters of RFC 4648 section 4 lie in five runs: what has to be added to a number depends on
// its run. Runs: 13 for A to Z, 0 for a to z, 1 to 10 for the digits, 11 for +, 12 for /.
__attribute__((target("ssse3"))) __m128i toLetters(__m128i sixes) noexcept {
    const __m128i additions =
        _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                      '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m128i isCapital = _mm_cmpgt_epi8(_mm_set1_epi8(26), sixes);
    const __m128i run = _mm_or_si128(_mm_subs_epu8(sixes, _mm_set1_epi8(51)),
                                     _mm_and_si128(isCapital, _mm_set1_epi8(13)));
    return _mm_add_epi8(_mm_shuffle_epi8(additions, run), sixes);
}

}  // namespace

bool canShuffle() noexcept {
    return __builtin_cpu_supports("ssse3") != 0;
}

char* encodeGroups(std::string_view bytes, char* out) noexcept {
    static const auto encode = canShuffle() ? &encodeGroupsByShuffling : &encodeGroupsByTable;
    return encode(bytes, out);
}

char* encodeGroupsByTable(std::string_view bytes, char* out) noexcept {
    static const PairTable table = makePairTable();
    const auto put = [&out](const Pair& pair) { out = std::copy(pair.begin(), pair.end(), out); };
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const auto byteAt = [bytes, i](std::size_t position) {
            return static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[i + position]));
        };
        const std::uint32_t group = byteAt(0) << 16U | byteAt(1) << 8U | byteAt(2);
        put(table[group >> 12U]);
        put(table[group & 0xFFFU]);
    }
    return out;
}

__attribute__((target("ssse3"))) char* encodeGroupsByShuffling(std::string_view bytes,
                                                               char* out) noexcept {
    while (bytes.size() >= kBytesRead) {
        const __m128i part = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data()));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), toLetters(splitIntoSixes(part)));
        bytes.remove_prefix(kBytesOfAStep);
        out += kTextOfAStep;
    }
    return encodeGroupsByTable(bytes, out);
}

}  // namespace cagnt1
