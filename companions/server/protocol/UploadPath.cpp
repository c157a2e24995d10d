#include "companions/server/protocol/UploadPath.h"

#include <algorithm>

namespace kolvan::server::protocol {
namespace {

bool isHarmful(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F || character == '/' || character == '\\';
}

bool isPart(std::string_view part) {
    return !part.empty() && part.size() <= kLongestPart && part.front() != '.' &&
           std::none_of(part.begin(), part.end(), isHarmful);
}

}  // namespace

std::optional<std::string> safeUploadPath(std::string_view directory, std::string_view fileName) {
    std::string path;
    std::size_t parts = 1;
    while (!directory.empty()) {
        const std::size_t slash = directory.find('/');
        const std::string_view part = directory.substr(0, slash);
        directory.remove_prefix(slash == std::string_view::npos ? directory.size() : slash + 1);
        if (part.empty() || part == ".") {
            continue;
        }
        if (!isPart(part) || ++parts > kMostParts) {
            return std::nullopt;
        }
        path.append(part).push_back('/');
    }
    if (!isPart(fileName) || path.size() + fileName.size() > kLongestPath) {
        return std::nullopt;
    }
    return path.append(fileName);
}

}  // namespace kolvan::server::protocol
