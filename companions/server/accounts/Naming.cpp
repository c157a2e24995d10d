#include "companions/server/accounts/Naming.h"

#include <algorithm>
#include <stdexcept>

namespace kolvan::server {

namespace {

constexpr std::size_t kLongestUserName = 64;
constexpr std::size_t kLongestTokenName = 100;

constexpr std::string_view kOfUserNames =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_@";

bool isControl(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7F;
}

}  // namespace

void checkUserName(std::string_view name) {
    if (name.empty() || name.size() > kLongestUserName ||
        name.find_first_not_of(kOfUserNames) != std::string_view::npos) {
        throw std::invalid_argument(
            "The name of a user is 1 to 64 letters, digits, dots, dashes, underscores and @");
    }
}

void checkTokenName(std::string_view name) {
    if (name.empty() || name.size() > kLongestTokenName ||
        std::any_of(name.begin(), name.end(), isControl)) {
        throw std::invalid_argument(
            "The name of a token is 1 to 100 bytes without control characters");
    }
}

}  // namespace kolvan::server
