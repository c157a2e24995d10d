#include "companions/server/protocol/Base64Groups.h"

#include <array>
#include <cstdint>

#include <tmmintrin.h>

namespace kolvan::server::protocol {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t kNone = 1U << 31U;

// The six bits of every character, ready at one of the four places of a group.
constexpr std::array<std::uint32_t, 256> makeTable(unsigned shift) {
    std::array<std::uint32_t, 256> table{};
    table.fill(kNone);
    for (std::size_t value = 0; value < kAlphabet.size(); ++value) {
        table[static_cast<unsigned char>(kAlphabet[value])] = static_cast<std::uint32_t>(value)
                                                              << shift;
    }
    return table;
}

constexpr std::array<std::array<std::uint32_t, 256>, 4> kTables = {makeTable(18), makeTable(12),
                                                                   makeTable(6), makeTable(0)};

std::uint32_t bitsOf(const char* group) noexcept {
    return kTables[0][static_cast<unsigned char>(group[0])] |
           kTables[1][static_cast<unsigned char>(group[1])] |
           kTables[2][static_cast<unsigned char>(group[2])] |
           kTables[3][static_cast<unsigned char>(group[3])];
}

// Sixteen numbers of eight bits, one for each column or row of the table of ASCII, which has a
// character's upper four bits for its column and the lower ones for its row.
using Bytes = std::array<unsigned char, 16>;

// Letters of the alphabet stand in the columns 2 to 7, which have a bit each. The others, where
// there is none, share one.
constexpr unsigned kOtherColumns = 1U << 6U;

constexpr unsigned bitOfColumn(std::size_t column) {
    return column >= 2 && column < 8 ? 1U << (column - 2) : kOtherColumns;
}

constexpr Bytes makeColumns() {
    Bytes bits{};
    for (std::size_t column = 0; column < bits.size(); ++column) {
        bits[column] = static_cast<unsigned char>(bitOfColumn(column));
    }
    return bits;
}

// For each row the columns in which it has no letter: a character is none when the bit of its
// column is among those of its row.
constexpr Bytes makeGaps() {
    Bytes gaps{};
    for (std::size_t row = 0; row < gaps.size(); ++row) {
        unsigned bits = kOtherColumns;
        for (std::size_t column = 2; column < 8; ++column) {
            bits |= kTables[3][column * 16 + row] == kNone ? bitOfColumn(column) : 0U;
        }
        gaps[row] = static_cast<unsigned char>(bits);
    }
    return gaps;
}

// What has to be added to a letter to get its six bits is the same for all letters of a column,
// except for "/": that shares the column of "+", and takes the place of the one before.
constexpr std::size_t kPlaceOfSlash = 1;

constexpr Bytes makeAdditions() {
    Bytes additions{};
    for (const char letter : std::string_view("+0AQaq")) {
        const auto code = static_cast<unsigned char>(letter);
        additions[code / 16U] = static_cast<unsigned char>(kTables[3][code] - code);
    }
    additions[kPlaceOfSlash] = static_cast<unsigned char>(kTables[3]['/'] - '/');
    return additions;
}

alignas(16) constexpr Bytes kColumns = makeColumns();
alignas(16) constexpr Bytes kGaps = makeGaps();
alignas(16) constexpr Bytes kAdditions = makeAdditions();

// A step decodes sixteen letters into twelve bytes, and writes sixteen.
constexpr std::size_t kTextOfAStep = 16;
constexpr std::size_t kBytesOfAStep = 12;
// The shortest text that has room for what a step writes.
constexpr std::size_t kTextWithRoom = 24;

__attribute__((target("ssse3"))) __m128i load(const void* bytes) noexcept {
    return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

// Twelve bytes from sixteen numbers of six bits, a byte each; the last four mean nothing.
__attribute__((target("ssse3"))) __m128i joinSixes(__m128i sixes) noexcept {
    // Two numbers become one of twelve bits, two of these one of 24, whose three bytes are then
    // put into their order.
    const __m128i twelves = _mm_maddubs_epi16(sixes, _mm_set1_epi16(0x0140));
    const __m128i groups = _mm_madd_epi16(twelves, _mm_set1_epi32(0x00011000));
    return _mm_shuffle_epi8(groups,
                            _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
}

}  // namespace

bool canShuffle() noexcept {
    return __builtin_cpu_supports("ssse3") != 0;
}

unsigned sixBitsOf(char letter) noexcept {
    return kTables[3][static_cast<unsigned char>(letter)];
}

std::size_t decodeGroups(std::string_view text, char* out) noexcept {
    static const auto decode = canShuffle() ? &decodeGroupsByShuffling : &decodeGroupsByTable;
    return decode(text, out);
}

std::size_t decodeGroupsByTable(std::string_view text, char* out) noexcept {
    std::size_t taken = 0;
    for (; taken + 4 <= text.size(); taken += 4) {
        const std::uint32_t bits = bitsOf(text.data() + taken);
        if ((bits & kNone) != 0) {
            break;
        }
        *out++ = static_cast<char>(bits >> 16U);
        *out++ = static_cast<char>(bits >> 8U);
        *out++ = static_cast<char>(bits);
    }
    return taken;
}

__attribute__((target("ssse3"))) std::size_t decodeGroupsByShuffling(std::string_view text,
                                                                     char* out) noexcept {
    const __m128i fourBits = _mm_set1_epi8(0x0F);
    std::size_t taken = 0;
    for (; taken + kTextWithRoom <= text.size(); taken += kTextOfAStep) {
        const __m128i letters = load(text.data() + taken);
        const __m128i columns = _mm_and_si128(_mm_srli_epi16(letters, 4), fourBits);
        const __m128i rows = _mm_and_si128(letters, fourBits);
        const __m128i strangers = _mm_and_si128(_mm_shuffle_epi8(load(kColumns.data()), columns),
                                                _mm_shuffle_epi8(load(kGaps.data()), rows));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(strangers, _mm_setzero_si128())) != 0xFFFF) {
            break;
        }
        // Where the comparison holds it gives -1.
        const __m128i isSlash = _mm_cmpeq_epi8(letters, _mm_set1_epi8('/'));
        const __m128i places = _mm_add_epi8(columns, isSlash);
        const __m128i sixes =
            _mm_add_epi8(letters, _mm_shuffle_epi8(load(kAdditions.data()), places));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), joinSixes(sixes));
        out += kBytesOfAStep;
    }
    return taken + decodeGroupsByTable(text.substr(taken), out);
}

}  // namespace kolvan::server::protocol
