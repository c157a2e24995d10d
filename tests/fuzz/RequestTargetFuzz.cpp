// What a request asks for, as it stands in its first line: a path and a query. Both are read once
// more by a decoder that goes letter by letter.
#include "companions/server/http/Target.h"
#include "tests/fuzz/Fuzz.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::server::http;

/// @return nothing where a percent sign is not followed by two digits, or stands for NUL
std::optional<std::string> decoded(std::string_view text, bool plusIsBlank) {
    std::string result;
    while (!text.empty()) {
        char letter = text.front();
        std::size_t taken = 1;
        if (letter == '%') {
            if (text.size() < 3 || std::isxdigit(static_cast<unsigned char>(text[1])) == 0 ||
                std::isxdigit(static_cast<unsigned char>(text[2])) == 0) {
                return std::nullopt;
            }
            letter = static_cast<char>(std::stoi(std::string(text.substr(1, 2)), nullptr, 16));
            taken = 3;
        } else if (letter == '+' && plusIsBlank) {
            letter = ' ';
        }
        if (letter == '\0') {
            return std::nullopt;
        }
        result += letter;
        text.remove_prefix(taken);
    }
    return result;
}

std::optional<std::vector<std::string>> segmentsOf(const std::string& path) {
    std::vector<std::string> segments;
    for (const std::string& piece : split(path, '/')) {
        const std::optional<std::string> segment = decoded(piece, false);
        if (!segment) {
            return std::nullopt;
        }
        segments.push_back(*segment);
    }
    return segments;
}

std::optional<Query> pairsOf(const std::string& query) {
    Query pairs;
    for (const std::string& piece : split(query, '&')) {
        if (piece.empty()) {
            continue;
        }
        const std::size_t sign = piece.find('=');
        const auto name = decoded(std::string_view(piece).substr(0, sign), true);
        const auto value = decoded(
            sign == std::string::npos ? "" : std::string_view(piece).substr(sign + 1), true);
        if (!name || !value) {
            return std::nullopt;
        }
        pairs.emplace_back(*name, *value);
    }
    return pairs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    if (input.find('\0') != std::string::npos) {
        return -1;  // which the reader of the line does not let through
    }
    require(parseQuery(input) == pairsOf(input), "a query is what its letters say");

    const std::size_t mark = input.find('?');
    const std::string path = input.substr(0, mark);
    const std::optional<Target> target = parseTarget('/' + input);
    const std::size_t begin = path.find_first_not_of('/');
    const auto expected =
        begin == std::string::npos ? std::vector<std::string>() : segmentsOf(path.substr(begin));
    require(target.has_value() == expected.has_value(), "a path is refused for its letters alone");
    if (target) {
        require(target->segments == *expected, "a path is what its letters say");
        requireEqual(mark == std::string::npos ? "" : input.substr(mark + 1), target->rawQuery,
                     "what follows the question mark is the query");
        const std::optional<Target> whole = parseTarget("http://host:1/" + input);
        require(whole && whole->segments == target->segments && whole->rawQuery == target->rawQuery,
                "a whole address is read as its path");
    }
    const std::optional<Target> bare = parseTarget(input);
    require(!bare || input.front() == '/' || input.front() == '?' || input.starts_with("http"),
            "nothing but a path, a query or an address is a target");
    return 0;
}
