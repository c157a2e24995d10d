#include "companions/demangle/ShortName.h"

#include <array>
#include <cstddef>

namespace kolvan {

namespace {

constexpr std::string_view kOperator = "operator";

/// Texts whose brackets belong to the name.
constexpr std::array<std::string_view, 3> kKept = {"(anonymous namespace)", "{lambda(",
                                                   "operator()"};

/// The place behind the bracket that closes the one at `begin`; npos when there is none.
std::size_t behindClosing(std::string_view name, std::size_t begin) {
    std::size_t depth = 0;
    for (std::size_t i = begin; i < name.size(); ++i) {
        const char character = name[i];
        const bool arrow = character == '>' && i > 0 && name[i - 1] == '-';
        if (character == '(' || character == '<') {
            ++depth;
        } else if ((character == ')' || (character == '>' && !arrow)) && --depth == 0) {
            return i + 1;
        }
    }
    return std::string_view::npos;
}

}  // namespace

std::string shortName(std::string_view name) {
    std::string text;
    for (std::size_t i = 0; i < name.size();) {
        const std::string_view rest = name.substr(i);
        std::string_view kept;
        for (const std::string_view each : kKept) {
            kept = rest.starts_with(each) ? each : kept;
        }
        if (kept.empty() && rest.starts_with(kOperator)) {  // operator<, operator->, operator>>
            kept = rest.substr(0, rest.find_first_of("( ", kOperator.size()));
        }
        if (!kept.empty()) {
            text += kept;
            i += kept.size();
        } else if (rest.front() == '(' || rest.front() == '<') {
            const std::size_t end = behindClosing(name, i);
            if (i == 0 || end == std::string_view::npos) {
                return std::string(name);
            }
            text += rest.front() == '<' ? "<>" : "";
            i = end;
        } else {
            text += rest.front();
            ++i;
        }
    }
    if (text.ends_with(" const")) {
        text.resize(text.size() - std::string_view(" const").size());
    }
    return text;
}

}  // namespace kolvan
