#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace kolvan::profiler {

/// Reads numbers as DWARF writes them, lowest byte first, from memory that may hold anything. A
/// read beyond the end yields zero and marks the reader broken, so that one question at the end is
/// enough.
class ByteReader {
public:
    /// @param bytes outlive the reader
    explicit ByteReader(std::span<const std::byte> bytes) : all(bytes) {}

    std::size_t position() const noexcept { return place; }
    bool atEnd() const noexcept { return broken || place == all.size(); }
    bool isBroken() const noexcept { return broken; }

    /// A number of that type: `read<std::uint16_t>()`.
    template <typename Number>
    Number read() noexcept {
        Number number{};
        const auto bytes = take(sizeof number);
        if (!broken) {
            std::memcpy(&number, bytes.data(), sizeof number);
        }
        return number;
    }

    /// A number of any length, without a sign (ULEB128). What exceeds 64 bits is dropped.
    std::uint64_t readUnsigned() noexcept {
        std::uint64_t number = 0;
        (void)readGroups(number);
        return number;
    }

    /// The same with a sign (SLEB128).
    std::int64_t readSigned() noexcept {
        std::uint64_t number = 0;
        const unsigned bits = readGroups(number);
        if (bits < 64 && bits > 0 && ((number >> (bits - 1)) & 1U) != 0) {
            number |= ~std::uint64_t{0} << bits;
        }
        return static_cast<std::int64_t>(number);
    }

    /// The next `length` bytes; empty where there are fewer.
    std::span<const std::byte> take(std::uint64_t length) noexcept {
        broken = broken || length > all.size() - place;
        if (broken) {
            return {};
        }
        const auto bytes = all.subspan(place, length);
        place += length;
        return bytes;
    }

    /// The characters up to the next NUL, which is passed over.
    std::string_view readText() noexcept {
        const auto left = all.subspan(broken ? all.size() : place);
        const void* const end = left.empty() ? nullptr : std::memchr(left.data(), 0, left.size());
        if (end == nullptr) {
            broken = true;
            return {};
        }
        const auto length =
            static_cast<std::size_t>(static_cast<const std::byte*>(end) - left.data());
        place += length + 1;
        return {reinterpret_cast<const char*>(left.data()), length};
    }

private:
    /// Groups of seven bits, lowest first. @return how many bits there were
    unsigned readGroups(std::uint64_t& number) noexcept {
        unsigned bits = 0;
        std::uint8_t group = 0;
        do {
            group = read<std::uint8_t>();
            if (bits < 64) {
                number |= std::uint64_t{group & 0x7FU} << bits;
                bits += 7;
            }
        } while ((group & 0x80U) != 0);
        return bits;
    }

    const std::span<const std::byte> all;
    std::size_t place = 0;
    bool broken = false;
};

}  // namespace kolvan::profiler
