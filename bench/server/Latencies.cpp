#include "bench/server/Latencies.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace kolvan::bench {

namespace {

std::array<std::uint8_t, 256> makeDigits() {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::array<std::uint8_t, 256> digits{};
    for (std::size_t value = 0; value < kAlphabet.size(); ++value) {
        digits[static_cast<std::uint8_t>(kAlphabet[value])] = static_cast<std::uint8_t>(value);
    }
    return digits;
}

void appendDecoded(std::string& bytes, std::string_view base64) {
    static const std::array<std::uint8_t, 256> digits = makeDigits();
    while (base64.ends_with('=')) {
        base64.remove_suffix(1);
    }
    std::uint32_t bits = 0;
    int count = 0;
    for (const char character : base64) {
        bits = bits << 6U | digits[static_cast<std::uint8_t>(character)];
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> static_cast<unsigned>(count) & 0xFFU);
        }
    }
}

}  // namespace

void Latencies::add(std::string_view base64, std::int64_t arrived) {
    appendDecoded(unfinished, base64);
    std::size_t begin = 0;
    for (std::size_t end = unfinished.find('\n'); end != std::string::npos;
         end = unfinished.find('\n', begin)) {
        std::int64_t written = arrived;
        std::from_chars(unfinished.data() + begin, unfinished.data() + end, written);
        waits.push_back(arrived - written);
        begin = end + 1;
    }
    unfinished.erase(0, begin);
}

std::int64_t Latencies::quantile(double share) const {
    if (waits.empty()) {
        return 0;
    }
    std::vector<std::int64_t> sorted = waits;
    const auto position = sorted.begin() + static_cast<std::ptrdiff_t>(
                                               share * static_cast<double>(sorted.size() - 1));
    std::nth_element(sorted.begin(), position, sorted.end());
    return *position;
}

}  // namespace kolvan::bench
