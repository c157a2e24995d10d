#include "companions/server/collections/Directories.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace kolvan::server {

void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), path.string());
        }
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0U);
    }
}

const std::string& nameForPath(const std::string& id) {
    constexpr std::string_view kAllowed =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-";
    if (id.empty() || id.find_first_not_of(kAllowed) != std::string::npos) {
        throw std::invalid_argument("not an id: " + id);
    }
    return id;
}

}  // namespace kolvan::server
