#include "companions/server/http/Target.h"

#include <cstddef>

namespace kolvan::server::http {
namespace {

int digitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<std::string> decode(std::string_view text, bool plusIsBlank) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t index = 0; index < text.size(); ++index) {
        const char character = text[index];
        if (character == '+' && plusIsBlank) {
            decoded.push_back(' ');
        } else if (character != '%') {
            decoded.push_back(character);
        } else {
            const int high = index + 2 < text.size() ? digitValue(text[index + 1]) : -1;
            const int low = index + 2 < text.size() ? digitValue(text[index + 2]) : -1;
            // A NUL would end the name early for whoever passes it to the system.
            if (high < 0 || low < 0 || high + low == 0) {
                return std::nullopt;
            }
            decoded.push_back(static_cast<char>(high * 16 + low));
            index += 2;
        }
    }
    return decoded;
}

std::string_view withoutOrigin(std::string_view text) {
    if (!text.starts_with("http://") && !text.starts_with("https://")) {
        return text;
    }
    const std::size_t authority = text.find("//") + 2;
    const std::size_t path = text.find_first_of("/?", authority);
    return path == std::string_view::npos ? "/" : text.substr(path);
}

}  // namespace

std::optional<Target> parseTarget(std::string_view text) {
    text = withoutOrigin(text);
    const std::size_t mark = text.find('?');
    std::string_view path = text.substr(0, mark);
    Target target;
    if (mark != std::string_view::npos) {
        target.rawQuery = text.substr(mark + 1);
    }
    const std::size_t begin = path.find_first_not_of('/');
    if (begin == 0 || (path.empty() && mark != 0)) {
        return std::nullopt;
    }
    if (begin == std::string_view::npos) {
        return target;
    }
    path.remove_prefix(begin);
    for (;;) {
        const std::size_t slash = path.find('/');
        std::optional<std::string> segment = decode(path.substr(0, slash), false);
        if (!segment) {
            return std::nullopt;
        }
        target.segments.push_back(std::move(*segment));
        if (slash == std::string_view::npos) {
            return target;
        }
        path.remove_prefix(slash + 1);
    }
}

std::optional<Query> parseQuery(std::string_view rawQuery) {
    Query query;
    while (!rawQuery.empty()) {
        const std::size_t end = rawQuery.find('&');
        const std::string_view piece = rawQuery.substr(0, end);
        rawQuery.remove_prefix(end == std::string_view::npos ? rawQuery.size() : end + 1);
        if (piece.empty()) {
            continue;
        }
        const std::size_t sign = piece.find('=');
        std::optional<std::string> name = decode(piece.substr(0, sign), true);
        std::optional<std::string> value =
            decode(sign == std::string_view::npos ? "" : piece.substr(sign + 1), true);
        if (!name || !value) {
            return std::nullopt;
        }
        query.emplace_back(std::move(*name), std::move(*value));
    }
    return query;
}

}  // namespace kolvan::server::http
