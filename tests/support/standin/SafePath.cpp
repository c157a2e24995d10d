#include "tests/support/standin/SafePath.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>

namespace kolvan::test {
namespace {

constexpr std::size_t kLongestName = 150;
constexpr std::size_t kDeepestPath = 16;

bool isHarmful(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F || character == '/' || character == '\\';
}

bool isPlain(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.size() > kLongestName ||
        name.starts_with(kIncomingPrefix)) {
        return false;
    }
    for (const char character : name) {
        if (isHarmful(character)) {
            return false;
        }
    }
    return true;
}

std::string markOf(std::string_view original) {
    // FNV-1a: small, and the same in every run, so that a file keeps its place.
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char character : original) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001B3U;
    }
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), hash, 16).ptr;
    return {digits.data(), end};
}

}  // namespace

std::string safeName(std::string_view name) {
    if (isPlain(name)) {
        return std::string(name);
    }
    std::string safe = "_";
    for (const char character : name.substr(0, kLongestName / 2)) {
        safe.push_back(isHarmful(character) ? '_' : character);
    }
    return safe + "~" + markOf(name);
}

std::vector<std::string> safeDirectories(std::string_view remoteDirectory) {
    std::vector<std::string> directories;
    std::size_t begin = 0;
    while (begin <= remoteDirectory.size()) {
        const std::size_t end = remoteDirectory.find('/', begin);
        const std::string_view piece = remoteDirectory.substr(begin, end - begin);
        if (!piece.empty() && piece != ".") {
            directories.push_back(safeName(piece));
        }
        if (end == std::string_view::npos) {
            break;
        }
        begin = end + 1;
    }
    if (directories.size() > kDeepestPath) {
        return {safeName(remoteDirectory)};
    }
    return directories;
}

}  // namespace kolvan::test
