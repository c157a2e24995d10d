#include "agent/Base64.h"

#include "agent/Base64Groups.h"
#include "agent/MakeRoom.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace cagnt1 {

namespace {

// Appends the text of whole groups of three bytes, for which `text` has room.
void appendGroups(std::string& text, std::string_view bytes) {
    constexpr std::size_t kBlockGroups = 1024;

    std::array<char, kBlockGroups * 4> block;  // not initialised: only what was written is copied
    while (!bytes.empty()) {
        const std::string_view part = bytes.substr(0, kBlockGroups * 3);
        text.append(block.data(), encodeGroups(part, block.data()));
        bytes.remove_prefix(part.size());
    }
}

}  // namespace

void Base64Encoder::append(std::string& text, std::string_view bytes) {
    makeRoom(text, (rest.size() + bytes.size()) / 3 * 4);
    if (!rest.empty()) {
        const std::string_view missing = bytes.substr(0, 3 - rest.size());
        rest += missing;
        bytes.remove_prefix(missing.size());
        if (rest.size() < 3) {
            return;
        }
        appendGroups(text, rest);
    }
    const std::size_t whole = bytes.size() / 3 * 3;
    appendGroups(text, bytes.substr(0, whole));
    rest = bytes.substr(whole);
}

void Base64Encoder::finish(std::string& text) {
    if (rest.empty()) {
        return;
    }
    text.reserve(text.size() + 4);
    const std::size_t padding = 3 - rest.size();
    appendGroups(text, rest.append(padding, '\0'));
    std::fill(text.end() - static_cast<std::ptrdiff_t>(padding), text.end(), '=');
    rest.clear();
}

}  // namespace cagnt1
