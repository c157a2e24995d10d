#include "companions/server/collections/Directories.h"

#include <stdexcept>
#include <string_view>

namespace kolvan::server {

const std::string& nameForPath(const std::string& id) {
    constexpr std::string_view kAllowed =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-";
    if (id.empty() || id.find_first_not_of(kAllowed) != std::string::npos) {
        throw std::invalid_argument("not an id: " + id);
    }
    return id;
}

}  // namespace kolvan::server
