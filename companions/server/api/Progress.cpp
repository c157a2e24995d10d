#include "companions/server/api/Progress.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <map>
#include <utility>

namespace kolvan::server::api {

namespace {

constexpr std::string_view kBlanks = " \t\r";

void skipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
}

template <typename Number>
std::optional<Number> numberOf(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number)
                                                                    : std::nullopt;
}

/// Undoes what is written for characters that cannot stand in an attribute. A collector writes line
/// ends and tabulators by their numbers; in a function's name they would be nothing to look at.
std::string unescaped(std::string_view text) {
    static constexpr std::array<std::pair<std::string_view, char>, 8> kEscapes{{{"&amp;", '&'},
                                                                                {"&lt;", '<'},
                                                                                {"&gt;", '>'},
                                                                                {"&quot;", '"'},
                                                                                {"&apos;", '\''},
                                                                                {"&#9;", ' '},
                                                                                {"&#10;", ' '},
                                                                                {"&#13;", ' '}}};
    std::string result;
    while (!text.empty()) {
        std::size_t length = 1;
        char character = text.front();
        for (const auto& [escape, meaning] : kEscapes) {
            if (text.starts_with(escape)) {
                length = escape.size();
                character = meaning;
            }
        }
        result += character;
        text.remove_prefix(length);
    }
    return result;
}

using Attributes = std::map<std::string_view, std::string_view>;

/// Reads NAME="VALUE" up to the end of the element.
std::optional<Attributes> attributesOf(std::string_view text) {
    Attributes attributes;
    for (skipBlanks(text); !text.starts_with('/') && !text.starts_with('>'); skipBlanks(text)) {
        const std::size_t equals = text.find("=\"");
        const std::size_t end =
            equals == std::string_view::npos ? std::string_view::npos : text.find('"', equals + 2);
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        attributes[text.substr(0, equals)] = text.substr(equals + 2, end - equals - 2);
        text.remove_prefix(end + 1);
    }
    return attributes;
}

std::optional<std::string_view> find(const Attributes& attributes, std::string_view name) {
    const auto found = attributes.find(name);
    return found == attributes.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

std::optional<Progress> progressOf(std::string_view line) {
    constexpr std::string_view kBegin = "<progress ";
    constexpr std::string_view kBehindShare = " % ";
    skipBlanks(line);
    const auto attributes = line.starts_with(kBegin) ? attributesOf(line.substr(kBegin.size()))
                                                     : std::optional<Attributes>();
    if (!attributes) {
        return std::nullopt;
    }
    const auto elapsed = numberOf<double>(find(*attributes, "elapsed").value_or(""));
    if (!elapsed || !std::isfinite(*elapsed) || std::signbit(*elapsed)) {
        return std::nullopt;
    }
    Progress progress;
    progress.elapsedSeconds = *elapsed;
    const auto stacks = find(*attributes, "stacks");
    const auto samples = stacks ? stacks : find(*attributes, "samples");
    progress.samples = numberOf<std::uint64_t>(samples.value_or(""));
    if (const auto top = find(*attributes, "top1")) {
        const std::size_t share = top->find(kBehindShare);
        progress.hottest = unescaped(
            share == std::string_view::npos ? *top : top->substr(share + kBehindShare.size()));
    }
    return progress;
}

}  // namespace kolvan::server::api
