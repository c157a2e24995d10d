#include "companions/server/http/ByteRange.h"

#include <algorithm>
#include <charconv>

namespace kolvan::server::http {
namespace {

std::optional<std::uint64_t> number(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<ByteRange> parseRange(std::string_view field, std::uint64_t fileSize) {
    constexpr std::string_view kUnit = "bytes=";
    const std::size_t dash = field.find('-');
    if (!field.starts_with(kUnit) || dash == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view from = field.substr(kUnit.size(), dash - kUnit.size());
    const std::string_view to = field.substr(dash + 1);
    const std::optional<std::uint64_t> last = number(to);
    if (from.empty()) {  // the last so many bytes
        if (!last) {
            return std::nullopt;
        }
        const std::uint64_t length = std::min(*last, fileSize);
        return ByteRange{fileSize - length, length};
    }
    const std::optional<std::uint64_t> first = number(from);
    if (!first || (!to.empty() && !last) || (last && *last < *first)) {
        return std::nullopt;
    }
    if (*first >= fileSize) {
        return ByteRange{fileSize, 0};
    }
    return ByteRange{*first, last ? std::min(*last, fileSize - 1) - *first + 1 : fileSize - *first};
}

}  // namespace kolvan::server::http
