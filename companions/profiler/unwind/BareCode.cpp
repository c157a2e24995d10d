#include "companions/profiler/unwind/BareCode.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>

namespace kolvan::profiler {

namespace {

constexpr std::uint8_t kCallOfPlace = 0xE8;    // followed by a distance of 4 bytes
constexpr std::uint8_t kCallOfOperand = 0xFF;  // followed by an operand, and /2 in its first byte
constexpr std::size_t kLongestCall = 7;

std::uint8_t byteAt(std::span<const std::byte> bytes, std::size_t index) {
    return std::to_integer<std::uint8_t>(bytes[index]);
}

/// Length of a call of an operand that `code` begins with; 0 when it does not.
std::size_t lengthOfCall(std::span<const std::byte> code) {
    constexpr unsigned kRegister = 3;     // mode: the operand is a register
    constexpr unsigned kScaled = 4;       // operand: another byte follows
    constexpr unsigned kWithoutBase = 5;  // operand, or base of that byte: 4 bytes follow
    if (code.size() < 2 || byteAt(code, 0) != kCallOfOperand) {
        return 0;
    }
    const unsigned operand = byteAt(code, 1);
    const unsigned mode = operand >> 6U;
    const unsigned place = operand & 7U;
    if ((operand >> 3U & 7U) != 2) {
        return 0;
    }
    std::size_t length = 2;
    if (mode == kRegister) {
        return length;
    }
    bool hasBase = place != kWithoutBase;
    if (place == kScaled) {
        hasBase = code.size() > length && (byteAt(code, length) & 7U) != kWithoutBase;
        ++length;
    }
    if (mode == 1) {
        return length + 1;
    }
    return mode == 2 || !hasBase ? length + 4 : length;
}

/// Whether a call of an operand may end at `address`, whomever it calls.
bool isBehindCallOfOperand(const ElfObject& object, std::uint64_t address) {
    for (std::size_t length = 2; length <= kLongestCall; ++length) {
        if (lengthOfCall(object.contents(address - length, length)) == length) {
            return true;
        }
    }
    return false;
}

/// The place that a call names which may end at `address`; nothing where there is none.
std::optional<std::uint64_t> placeThatIsCalled(const ElfObject& object, std::uint64_t address) {
    std::int32_t distance = 0;
    const auto code = object.contents(address - sizeof distance - 1, sizeof distance + 1);
    if (code.empty() || byteAt(code, 0) != kCallOfPlace) {
        return std::nullopt;
    }
    std::memcpy(&distance, code.data() + 1, sizeof distance);
    return address + static_cast<std::uint64_t>(std::int64_t{distance});
}

}  // namespace

bool isBehindCall(const ElfObject& object, std::uint64_t address) {
    return placeThatIsCalled(object, address) || isBehindCallOfOperand(object, address);
}

bool isBehindCallOf(const ElfObject& object, std::uint64_t address, std::uint64_t callee) {
    constexpr std::uint64_t kLongestFunction = 0x10000;
    const auto place = placeThatIsCalled(object, address);
    return (place && callee - *place < kLongestFunction) || isBehindCallOfOperand(object, address);
}

bool returnsFromSignal(const ElfObject& object, std::uint64_t address) {
    // mov $15,%rax or mov $15,%eax; syscall
    constexpr std::array<std::uint8_t, 9> kLong{0x48, 0xC7, 0xC0, 0x0F, 0x00,
                                                0x00, 0x00, 0x0F, 0x05};
    constexpr std::array<std::uint8_t, 7> kShort{0xB8, 0x0F, 0x00, 0x00, 0x00, 0x0F, 0x05};
    const auto isThere = [&](std::span<const std::uint8_t> wanted) {
        const auto code = object.contents(address, wanted.size());
        return std::equal(code.begin(), code.end(), wanted.begin(), wanted.end(),
                          [](std::byte one, std::uint8_t other) {
                              return std::to_integer<std::uint8_t>(one) == other;
                          });
    };
    return isThere(kLong) || isThere(kShort);
}

bool isProgramStart(const ElfObject& object, std::uint64_t address) {
    constexpr std::uint64_t kLength = 32;  // those in use call the C library after 22 bytes or less
    const std::uint64_t entry = object.entry();
    return entry != 0 && address >= entry && address - entry < kLength;
}

}  // namespace kolvan::profiler
